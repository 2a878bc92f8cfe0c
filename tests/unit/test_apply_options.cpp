// align-apply's command line: the interface other scripts call, and every refusal with its
// message.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apply_options.h"
#include "apply_transform.h"

namespace {

struct Parsed {
    int status;
    std::string out;
    apply_command c;
};

Parsed parse(std::vector<std::string> words)
{
    words.insert(words.begin(), "align-apply");
    std::vector<char *> argv;
    for (std::string &w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    Parsed p;
    testing::internal::CaptureStdout();
    p.status = parse_apply_command((int)words.size(), argv.data(), &p.c);
    p.out = testing::internal::GetCapturedStdout();
    return p;
}

}  // namespace

TEST(ParseApplyCommand, TheIssueInterfaceInAnyOrder)
{
    Parsed p = parse({"--template", "t.nii.gz", "--alignment", "align.com", "in.nii", "out.nii.gz"});
    ASSERT_EQ(p.status, 0) << p.out;
    EXPECT_EQ(std::string(p.c.template_name), "t.nii.gz");
    EXPECT_EQ(std::string(p.c.alignment_name), "align.com");
    EXPECT_EQ(std::string(p.c.input_name), "in.nii");
    EXPECT_EQ(std::string(p.c.output_name), "out.nii.gz");
    EXPECT_EQ(p.c.kernel, APPLY_ACCURATE);
    EXPECT_EQ(p.c.inverse, 0);
    EXPECT_EQ(p.c.jacobian_name[0], '\0');

    p = parse({"labels.nii", "--inverse", "--interp=nearest", "--individual", "subj.nii", "--jacobian", "j.nii",
               "--field", "w.nii.gz", "--alignment=a.com", "--template", "t.nii", "out.nii", "--interp", "linear"});
    ASSERT_EQ(p.status, 0) << p.out;
    EXPECT_EQ(p.c.inverse, 1);
    EXPECT_EQ(p.c.kernel, APPLY_LINEAR);  // the last --interp wins
    EXPECT_EQ(std::string(p.c.individual_name), "subj.nii");
    EXPECT_EQ(std::string(p.c.input_name), "labels.nii");
    EXPECT_EQ(std::string(p.c.output_name), "out.nii");
    EXPECT_EQ(std::string(p.c.jacobian_name), "j.nii");
    EXPECT_EQ(std::string(p.c.field_name), "w.nii.gz");

    p = parse({"--help"});
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.c.help, 1);
}

TEST(ParseApplyCommand, EachBadCommandIsRefusedWithItsMessage)
{
    const std::vector<std::string> base = {"--template", "t.nii", "--alignment", "a.com"};
    struct Case {
        std::vector<std::string> extra;
        std::string message;
    } cases[] = {
        {{"--frobnicate", "in.nii", "out.nii"}, "Error: --frobnicate is not an option of align-apply.\n"},
        {{"in.nii", "out.nii", "--jacobian"}, "Error: the option --jacobian needs a value.\n"},
        {{"--interp", "cubic", "in.nii", "out.nii"}, "Error: --interp cubic is not a kernel: use accurate, linear or nearest.\n"},
        {{"in.nii"}, "Error: align-apply needs an INPUT and an OUTPUT file.\n"},
        {{"in.nii", "out.nii", "more.nii"}, "Error: align-apply takes one INPUT and one OUTPUT; more.nii is one file too many.\n"},
        {{"--inverse", "in.nii", "out.nii"}, "Error: --inverse needs --individual FILE, the individual whose grid the output takes.\n"},
        {{"in.nii", "out.img"}, "Error: the output out.img must be a NIfTI-1 file name ending in .nii or .nii.gz.\n"},
        {{"in.nii", "out.nii", "--field", "w.mnc"}, "Error: the output w.mnc must be a NIfTI-1 file name ending in .nii or .nii.gz.\n"},
        {{"in.nii", "out.nii", "--individual", std::string(1100, 'x')}, "Error: the name given for --individual is too long.\n"},
    };
    for (const Case &c : cases) {
        std::vector<std::string> words = base;
        words.insert(words.end(), c.extra.begin(), c.extra.end());
        Parsed p = parse(words);
        EXPECT_EQ(p.status, 1) << c.message;
        EXPECT_EQ(p.out, c.message + "Run align-apply --help for the usage.\n");
    }
    Parsed p = parse({"--alignment", "a.com", "in.nii", "out.nii"});
    EXPECT_EQ(p.out, "Error: align-apply needs --template TEMPLATE.\nRun align-apply --help for the usage.\n");
    p = parse({"--template", "t.nii", "in.nii", "out.nii"});
    EXPECT_EQ(p.out, "Error: align-apply needs --alignment ALIGN_COM.\nRun align-apply --help for the usage.\n");
}
