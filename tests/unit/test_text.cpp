/* Line readers, the option scanner, ".align", and the application of options to the records.
   The scanner keeps process-wide state, so each scan runs in a forked child with its own copy
   of it. */
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "globals.h"
#include "test_support.h"
#include "text.h"
#include "volume_load.h"

namespace {

struct ChildResult {
    int status;
    std::string out;
};

/* Runs body in a forked child with standard input read from the text input and standard
   output caught; returns the child's exit status and what it printed. */
template <typename Body> ChildResult run_in_child(const std::string &input, Body body)
{
    write_text_file("child-input.txt", input);
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        int in = open("child-input.txt", O_RDONLY);
        int out = open("child-output.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(in, 0);
        dup2(out, 1);
        int status = body();
        fflush(stdout);
        _exit(status);
    }
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, read_text_file("child-output.txt")};
}

/* Every result of my_getopt over words until it returns 0, as "letter@which" items. */
std::string scan_all(std::vector<const char *> words)
{
    std::vector<char *> argv;
    for (const char *w : words) argv.push_back(const_cast<char *>(w));
    argv.push_back(nullptr);
    ChildResult r = run_in_child("", [&]() {
        int which = -7, option, guard = 0;
        while ((option = my_getopt((int)words.size(), argv.data(), "z:Z:w:W:o:O:t:T:m:M:i:I:13aAhHyY",
                                   &which)) != 0 && guard++ < 10) {
            if (option == -1) printf("?@%d ", which);
            else printf("%c@%d ", option, which);
        }
        printf("end ");
        /* never reset: a second scan of other words finds nothing */
        char *other[] = {const_cast<char *>("x"), const_cast<char *>("-y"), nullptr};
        printf("%d", my_getopt(2, other, "y", &which));
        return 0;
    });
    return r.out;
}

void clear_list(file_list *list)
{
    file_list *node = list->next;
    while (node != nullptr) {
        file_list *next = node->next;
        free(node);
        node = next;
    }
    memset(list, 0, sizeof *list);
}

} // namespace

TEST(GetLine, ReadsUpTo1023CharactersWhateverSizeSays)
{
    ScopedTempDir dir;
    write_text_file("t.txt", std::string(1500, 'a') + "\n");
    FILE *fp = fopen("t.txt", "r");
    char line[1024];
    ASSERT_NE(get_line(fp, line, 8), nullptr);
    EXPECT_EQ(strlen(line), 1023u);
    ASSERT_NE(get_line(fp, line, 8), nullptr);
    EXPECT_EQ(std::string(line), std::string(477, 'a') + "\n");
    fclose(fp);
}

TEST(GetLineWithComment, EndsTheLineAtTheFirstHash)
{
    ScopedTempDir dir;
    write_text_file("t.txt", "value 3 # three # more\n# whole line\nplain\n");
    FILE *fp = fopen("t.txt", "r");
    char line[1024];
    EXPECT_STREQ(get_line_with_comment(fp, line, sizeof line), "value 3 ");
    EXPECT_STREQ(get_line_with_comment(fp, line, sizeof line), "");
    EXPECT_STREQ(get_line_with_comment(fp, line, sizeof line), "plain\n");
    EXPECT_EQ(get_line_with_comment(fp, line, sizeof line), nullptr);
    fclose(fp);
}

TEST(MyGetopt, OnlyTheSecondCharacterCounts)
{
    ScopedTempDir dir;
    /* -tfoo is -t and takes the next word; -yY is -y alone and takes nothing */
    EXPECT_EQ(scan_all({"align", "-tfoo", "t.nii", "-yY", "-3"}), "t@2 y@3 3@4 end 0");
}

TEST(MyGetopt, UnknownOptionDoesNotAdvance)
{
    ScopedTempDir dir;
    /* the caller stops at the first -1; the guard in scan_all ends the repetition */
    std::string got = scan_all({"align", "-q", "a.nii"});
    EXPECT_EQ(got.substr(0, 12), "?@1 ?@1 ?@1 ");
}

TEST(ReadProgramInitFile, TableHoldsAtMostOneHundredWords)
{
    ScopedTempDir dir;
    std::string line = "align";
    for (int i = 0; i < 120; i++) line += " w" + std::to_string(i);
    write_text_file(".align", line + "\n");
    static char arguments[100][1024] = {"align"};
    int myargc = 1;
    read_program_init_file(".align", arguments, &myargc);
    EXPECT_EQ(myargc, 100);
    EXPECT_STREQ(arguments[99], "w98");
}

TEST(ApplyStartupOption, WrapDigitsPerAxis)
{
    ScopedTempDir dir;
    ChildResult r = run_in_child("", [] {
        startup_options opts = {};
        apply_startup_option('W', "101", &opts);
        apply_startup_option('W', "11", &opts);
        apply_startup_option('W', "-11", &opts);
        apply_startup_option('W', "234", &opts);
        return 0;
    });
    EXPECT_EQ(r.out, "Wrapping in (x,y,z) = (1,0,1)\n"
                     "Wrapping in (x,y,z) = (0,1,1)\n"
                     "Wrapping in (x,y,z) = (0,-1,-1)\n"
                     "Wrapping in (x,y,z) = (2,3,4)\n");
    startup_options opts = {};
    testing::internal::CaptureStdout();
    apply_startup_option('W', "101", &opts);
    fflush(stdout);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(opts.iWrap, 101);
    EXPECT_EQ(Alignment.WrapAround.x, 1);
    EXPECT_EQ(Alignment.WrapAround.y, 0);
    EXPECT_EQ(Alignment.WrapAround.z, 1);
}

TEST(ApplyStartupOption, FileOptionsBuildOrderedLists)
{
    clear_list(&individual_files);
    clear_list(&template_files);
    startup_options opts = {};
    apply_startup_option('i', "a.nii", &opts);
    apply_startup_option('I', "b.nii", &opts);
    apply_startup_option('i', "c.nii", &opts);
    apply_startup_option('T', "t.nii", &opts);
    EXPECT_STREQ(individual_files.file_name, "a.nii");
    ASSERT_NE(individual_files.next, nullptr);
    EXPECT_STREQ(individual_files.next->file_name, "b.nii");
    ASSERT_NE(individual_files.next->next, nullptr);
    EXPECT_STREQ(individual_files.next->next->file_name, "c.nii");
    EXPECT_EQ(individual_files.next->next->next, nullptr);
    EXPECT_STREQ(template_files.file_name, "t.nii");
    EXPECT_EQ(template_files.next, nullptr);
    clear_list(&individual_files);
    clear_list(&template_files);
}
