// Tests of the temporary-file-and-rename save: a complete save replaces the old file, a save
// that fails part way (a file-size limit stands in for a full disk) leaves it intact.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <cstring>
#include <dirent.h>

#include "safe_save.h"
#include "test_support.h"

namespace {

int files_in_current_directory(void)
{
    int n = 0;
    DIR *d = opendir(".");
    for (dirent *e; (e = readdir(d)) != NULL;)
        if (e->d_name[0] != '.' || strncmp(e->d_name, ".part-", 6) == 0) n++;
    closedir(d);
    return n;
}

TEST(SafeSave, CompleteSaveReplacesTheFileAndLeavesNoTemporary) {
    ScopedTempDir dir;
    write_text_file("result.txt", "old\n");
    safe_file sf;
    FILE *fp = safe_save_open(&sf, "result.txt", "w");
    ASSERT_NE(fp, nullptr);
    fprintf(fp, "new\n");
    EXPECT_EQ(read_text_file("result.txt"), "old\n");  // untouched until the close
    EXPECT_EQ(safe_save_close(&sf), 0);
    EXPECT_EQ(read_text_file("result.txt"), "new\n");
    EXPECT_EQ(files_in_current_directory(), 1);
}

TEST(SafeSave, TemporaryNameKeepsDirectoryAndExtension) {
    char name[1024];
    ASSERT_EQ(safe_save_temp_name("out/dir/aligned.nii.gz", name, sizeof name), 0);
    std::string s(name);
    EXPECT_EQ(s.rfind("out/dir/.part-", 0), 0u);
    EXPECT_EQ(s.substr(s.size() - 15), "-aligned.nii.gz");
    char small[8];
    EXPECT_EQ(safe_save_temp_name("aligned.nii.gz", small, sizeof small), 1);
}

TEST(SafeSave, WriteFailureKeepsTheOldFileAndReportsIt) {
    ScopedTempDir dir;
    write_text_file("result.txt", "old\n");
    struct rlimit saved, limit;
    getrlimit(RLIMIT_FSIZE, &saved);
    limit = saved;
    limit.rlim_cur = 4096;  // a disk with 4 kB free
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    safe_file sf;
    FILE *fp = safe_save_open(&sf, "result.txt", "w");
    ASSERT_NE(fp, nullptr);
    for (int i = 0; i < 4000; i++) fprintf(fp, "line %d\n", i);
    testing::internal::CaptureStdout();
    int status = safe_save_close(&sf);
    std::string out = testing::internal::GetCapturedStdout();
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("Error: result.txt could not be written ("), std::string::npos) << out;
    EXPECT_NE(out.find("the previous file is kept."), std::string::npos);
    EXPECT_EQ(read_text_file("result.txt"), "old\n");
    EXPECT_EQ(files_in_current_directory(), 1);
}

TEST(SafeSave, MissingDirectoryFailsAtOpenAndDiscardIsHarmless) {
    ScopedTempDir dir;
    safe_file sf;
    EXPECT_EQ(safe_save_open(&sf, "no/such/dir/file.txt", "w"), nullptr);
    safe_save_discard(&sf);
    FILE *fp = safe_save_open(&sf, "kept.txt", "w");
    ASSERT_NE(fp, nullptr);
    safe_save_discard(&sf);
    EXPECT_EQ(files_in_current_directory(), 0);
}

}  // namespace
