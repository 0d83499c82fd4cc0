/*
 * The tokenizer on public JSON documents (twitter.json, citm_catalog.json,
 * canada.json, each as it is and minified; see bench_docs.h for where they
 * are read from), in one run with its baselines: RapidJSON's SAX Reader
 * with a handler that accepts everything, and simdjson's DOM parser (when
 * built with it). The tokenizer runs into an array kept from an earlier
 * parse (a reused tokenizer) and growing from 64 tokens of the caller's
 * (a fresh one). Throughput is bytes of input per second.
 *
 * Also without documents: closing brackets that match nothing, after a
 * deep nest ("["xN 1 "]"xN : "]"xN), which must cost linear time.
 *
 *   bench_jsmn [benchmark flags] [DOCUMENT_DIR]
 */
#include <benchmark/benchmark.h>

#include <rapidjson/reader.h>
#include <rapidjson/stream.h>
#ifdef ZOR_HAVE_SIMDJSON
#include <simdjson.h>
#endif

#include <stdio.h>

#include <string>

#include "bench_docs.h"
#include "jsmn/jsmn.h"

namespace
{

void count_bytes(benchmark::State &st, const std::string &text)
{
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * text.size()));
}

void jsmn_reused(benchmark::State &st, const std::string &text)
{
    jsmn_tokenizer t;
    jsmn_init(&t, nullptr, 64);
    jsmn_parse(&t, text.data(), text.size()); /* grow once, as a reused tokenizer has */
    for (auto _ : st) {
        if (jsmn_parse(&t, text.data(), text.size()) <= 0)
            st.SkipWithError("parse failed");
        benchmark::DoNotOptimize(t.tokens);
    }
    jsmn_destroy(&t);
    count_bytes(st, text);
}

void jsmn_grow64(benchmark::State &st, const std::string &text)
{
    for (auto _ : st) {
        jsmn_token local[64];
        jsmn_tokenizer t;
        jsmn_init(&t, local, 64);
        if (jsmn_parse(&t, text.data(), text.size()) <= 0)
            st.SkipWithError("parse failed");
        benchmark::DoNotOptimize(t.tokens);
        jsmn_destroy(&t);
    }
    count_bytes(st, text);
}

void rapidjson_reader(benchmark::State &st, const std::string &text)
{
    rapidjson::Reader reader;
    rapidjson::BaseReaderHandler<> handler;
    for (auto _ : st) {
        rapidjson::StringStream in(text.c_str());
        if (reader.Parse(in, handler).IsError())
            st.SkipWithError("parse failed");
        benchmark::ClobberMemory();
    }
    count_bytes(st, text);
}

#ifdef ZOR_HAVE_SIMDJSON
void simdjson_dom(benchmark::State &st, const std::string &text)
{
    simdjson::dom::parser parser;
    simdjson::padded_string padded(text);
    for (auto _ : st) {
        simdjson::dom::element doc;
        if (parser.parse(padded).get(doc) != simdjson::SUCCESS)
            st.SkipWithError("parse failed");
        benchmark::DoNotOptimize(doc);
    }
    count_bytes(st, text);
}
#endif

/* "["xN 1 "]"xN : "]"xN, about `bytes` long. */
void stray_closes(benchmark::State &st)
{
    size_t n = static_cast<size_t>(st.range(0)) / 3;
    std::string text = std::string(n, '[') + "1" + std::string(n, ']') + ":" + std::string(n, ']');
    jsmn_tokenizer t;
    jsmn_init(&t, nullptr, 64);
    for (auto _ : st) {
        if (jsmn_parse(&t, text.data(), text.size()) <= 0)
            st.SkipWithError("parse failed");
    }
    jsmn_destroy(&t);
    count_bytes(st, text);
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    std::string dir = bench_docs::dir(argc, argv);
    static std::string texts[6];
    const char *names[3] = {"twitter.json", "citm_catalog.json", "canada.json"};
    int found = 0;
    for (int d = 0; d < 3; d++) {
        std::string &pretty = texts[2 * d], &minified = texts[2 * d + 1];
        if (!bench_docs::load(dir, names[d], pretty))
            continue;
        found++;
        minified = bench_docs::minify(pretty);
        for (const std::string *text : {&pretty, &minified}) {
            std::string doc = std::string(names[d]) + (text == &minified ? "/min" : "");
            benchmark::RegisterBenchmark(("jsmn_reused/" + doc).c_str(), jsmn_reused, *text);
            benchmark::RegisterBenchmark(("jsmn_grow64/" + doc).c_str(), jsmn_grow64, *text);
            benchmark::RegisterBenchmark(("rapidjson_reader/" + doc).c_str(), rapidjson_reader,
                                         *text);
#ifdef ZOR_HAVE_SIMDJSON
            benchmark::RegisterBenchmark(("simdjson_dom/" + doc).c_str(), simdjson_dom, *text);
#endif
        }
    }
    if (found == 0)
        fprintf(stderr, "bench_jsmn: no documents (give a directory or set ZOR_BENCH_DATA)\n");
    benchmark::RegisterBenchmark("jsmn_stray_closes", stray_closes)
        ->Arg(48 << 10)
        ->Arg(96 << 10)
        ->Arg(192 << 10)
        ->Arg(384 << 10);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
