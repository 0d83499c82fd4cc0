/*
 * A plain driver for a fuzz target, linked with each one to replay its
 * corpus as an ordinary test: every file of the directories named on the
 * command line, in name order, each in a heap buffer of exactly its size so
 * that memory checkers see any read past it.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::filesystem::path> files;
    for (int a = 1; a < argc; a++)
        for (const std::filesystem::directory_entry &e :
             std::filesystem::directory_iterator(argv[a]))
            files.push_back(e.path());
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path &file : files) {
        std::ifstream in(file, std::ios::binary);
        std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        fprintf(stderr, "replay: %s\n", file.c_str());
        uint8_t *data = static_cast<uint8_t *>(malloc(std::max<size_t>(bytes.size(), 1)));
        memcpy(data, bytes.data(), bytes.size());
        LLVMFuzzerTestOneInput(data, bytes.size());
        free(data);
    }
    printf("replay: %zu inputs passed\n", files.size());
    return files.empty() ? 2 : 0;
}
