/*
 * A plain driver for a fuzz target: feeds LLVMFuzzerTestOneInput every file
 * of the directories (or the files) named on the command line, each in a
 * heap buffer of exactly its size so that memory checkers see any read past
 * it. Linked with each target to replay its corpus as an ordinary test.
 */
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

static std::vector<std::string> inputs(const char *path)
{
    std::vector<std::string> files;
    struct stat st;
    if (stat(path, &st) != 0) {
        fprintf(stderr, "replay: cannot read %s\n", path);
        exit(2);
    }
    if (!S_ISDIR(st.st_mode))
        return {path};
    DIR *dir = opendir(path);
    while (struct dirent *e = dir ? readdir(dir) : nullptr) {
        std::string file = std::string(path) + "/" + e->d_name;
        if (stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode))
            files.push_back(file);
    }
    if (dir)
        closedir(dir);
    std::sort(files.begin(), files.end());
    return files;
}

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    size_t count = 0;
    for (int a = 1; a < argc; a++) {
        for (const std::string &file : inputs(argv[a])) {
            FILE *f = fopen(file.c_str(), "rb");
            std::string bytes;
            char chunk[4096];
            size_t n;
            while (f && (n = fread(chunk, 1, sizeof(chunk), f)) > 0)
                bytes.append(chunk, n);
            if (f)
                fclose(f);
            fprintf(stderr, "replay: %s\n", file.c_str());
            uint8_t *data = static_cast<uint8_t *>(malloc(bytes.size() ? bytes.size() : 1));
            std::copy(bytes.begin(), bytes.end(), data);
            LLVMFuzzerTestOneInput(data, bytes.size());
            free(data);
            count++;
        }
    }
    if (count == 0) {
        fprintf(stderr, "replay: no inputs\n");
        return 2;
    }
    printf("replay: %zu inputs passed\n", count);
    return 0;
}
