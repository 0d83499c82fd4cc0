/*
 * bench_docs.h - JSON documents for the benchmarks, read from a directory:
 * the first argument left after benchmark::Initialize, else the
 * environment variable ZOR_BENCH_DATA. A document that is not there is
 * skipped (nothing is ever fetched). A document can also be had minified:
 * the same text without white space between tokens.
 */
#ifndef ZOR_BENCH_DOCS_H
#define ZOR_BENCH_DOCS_H

#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace bench_docs
{

/* The directory: argv[1] when given (call after benchmark::Initialize,
 * which takes its own flags out), else ZOR_BENCH_DATA, else none (""). */
inline std::string dir(int argc, char **argv)
{
    if (argc > 1)
        return argv[1];
    const char *env = getenv("ZOR_BENCH_DATA");
    return env != nullptr ? env : "";
}

/* Reads `name` from `dir` into `out`; false when there is no such file. */
inline bool load(const std::string &dir, const std::string &name, std::string &out)
{
    if (dir.empty())
        return false;
    FILE *f = fopen((dir + "/" + name).c_str(), "rb");
    if (f == nullptr)
        return false;
    out.clear();
    char chunk[1 << 16];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0)
        out.append(chunk, n);
    fclose(f);
    return true;
}

/* The text without the white space outside strings. */
inline std::string minify(const std::string &json)
{
    std::string out;
    out.reserve(json.size());
    bool in_string = false;
    for (size_t i = 0; i < json.size(); i++) {
        char c = json[i];
        if (in_string) {
            out += c;
            if (c == '\\' && i + 1 < json.size())
                out += json[++i];
            else if (c == '"')
                in_string = false;
        } else if (c != ' ' && c != '\t' && c != '\n' && c != '\r') {
            out += c;
            in_string = c == '"';
        }
    }
    return out;
}

} // namespace bench_docs

#endif /* ZOR_BENCH_DOCS_H */
