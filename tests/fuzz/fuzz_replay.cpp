/* Replays inputs through one fuzz target: align_fuzz_replay [-v] <target> <file or directory>...
   Every file (every file of a directory, in name order) is one input; a name ending in ".hex"
   holds the input as hexadecimal digits, where white space and lines starting with '#' (a
   description of the input) are skipped. The readers' own output is dropped unless -v is given.
   Ends with status 0 when every input ran to one of the outcomes the program allows; a broken
   promise or a sanitizer report ends it otherwise. */
#include <algorithm>
#include <cstdio>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "fuzz_harness.h"
#include "fuzz_targets.h"

namespace {

/* Absolute names: the targets change into their own directory. */
void collect(const std::string &given, std::vector<std::string> *files)
{
    char resolved[PATH_MAX];
    std::string path = realpath(given.c_str(), resolved) != NULL ? resolved : given;
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        std::vector<std::string> names;
        DIR *d = opendir(path.c_str());
        struct dirent *e;
        while (d != NULL && (e = readdir(d)) != NULL)
            if (e->d_name[0] != '.') names.push_back(path + "/" + e->d_name);
        if (d != NULL) closedir(d);
        std::sort(names.begin(), names.end());
        files->insert(files->end(), names.begin(), names.end());
    } else {
        files->push_back(path);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    int first = 1;
    bool verbose = argc > 1 && strcmp(argv[1], "-v") == 0;
    if (verbose) first++;
    const fuzz_target *target = argc > first ? find_fuzz_target(argv[first]) : NULL;
    if (target == NULL || argc < first + 2) {
        fprintf(stderr, "usage: align_fuzz_replay [-v] <target> <file or directory>...\ntargets:\n");
        for (int i = 0; i < FUZZ_NTARGETS; i++)
            fprintf(stderr, "  %-11s %s\n", FUZZ_TARGETS[i].name, FUZZ_TARGETS[i].layout);
        return 2;
    }
    std::vector<std::string> files;
    for (int i = first + 1; i < argc; i++) collect(argv[i], &files);
    fuzz_echo_output(verbose);
    int count = 0;
    for (const std::string &f : files) {
        std::vector<uint8_t> input;
        if (!fuzz_read_input(f.c_str(), &input)) {
            fprintf(stderr, "cannot read the input %s\n", f.c_str());
            return 2;
        }
        fprintf(stderr, "%s: %s (%zu bytes)\n", target->name, f.c_str(), input.size());
        target->run(input.data(), input.size());
        fuzz_leave_directory();
        fflush(stdout);
        count++;
    }
    fprintf(stderr, "%s: %d inputs replayed, none broke a promise\n", target->name, count);
    return count > 0 ? 0 : 2;
}
