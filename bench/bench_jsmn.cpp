/*
 * JSON tokenizer against RapidJSON's SAX Reader (with a handler that
 * accepts everything), in one run, over generated texts of 10 KB to 10 MB
 * that mix objects, arrays, strings (some with escapes) and numbers.
 * Throughput is reported as bytes per second of input.
 */
#include <benchmark/benchmark.h>

#include <rapidjson/reader.h>
#include <rapidjson/stream.h>

#include <random>
#include <string>

#include "jsmn/jsmn.h"

namespace
{

/* Writes one random value of at most `depth` nesting levels. */
void gen_value(std::string &out, std::mt19937 &rng, int depth)
{
    int kind = static_cast<int>(rng() % (depth > 0 ? 8 : 5));
    switch (kind) {
    case 0: /* integer */
        out += std::to_string(static_cast<int>(rng() % 2000000) - 1000000);
        break;
    case 1: /* real */
        out += std::to_string(rng() % 100000) + "." + std::to_string(rng() % 1000) + "e-3";
        break;
    case 2: /* literal */
        out += (rng() % 3 == 0) ? "null" : (rng() % 2 ? "true" : "false");
        break;
    case 3:
    case 4: { /* string, one in eight with escapes */
        out += '"';
        size_t n = 3 + rng() % 24;
        for (size_t i = 0; i < n; i++)
            out += static_cast<char>('a' + rng() % 26);
        if (rng() % 8 == 0)
            out += "\\n\\\"\\u00e9";
        out += '"';
        break;
    }
    case 5:
    case 6: { /* object */
        out += "{";
        size_t n = 1 + rng() % 6;
        for (size_t i = 0; i < n; i++) {
            if (i)
                out += ", ";
            out += "\"key" + std::to_string(rng() % 100) + "\": ";
            gen_value(out, rng, depth - 1);
        }
        out += "}";
        break;
    }
    default: { /* array */
        out += "[";
        size_t n = 1 + rng() % 8;
        for (size_t i = 0; i < n; i++) {
            if (i)
                out += ", ";
            gen_value(out, rng, depth - 1);
        }
        out += "]";
        break;
    }
    }
}

/* A top-level array of records, one per line, of at least `size` bytes. */
std::string gen_text(size_t size)
{
    std::mt19937 rng(7);
    std::string out = "[\n";
    while (out.size() < size) {
        if (out.size() > 2)
            out += ",\n";
        out += "  {\"id\": " + std::to_string(out.size()) + ", \"data\": ";
        gen_value(out, rng, 4);
        out += "}";
    }
    out += "\n]\n";
    return out;
}

void BM_Tokenize_Jsmn(benchmark::State &st)
{
    std::string text = gen_text(static_cast<size_t>(st.range(0)));
    jsmn_tokenizer t;
    jsmn_init(&t, nullptr, 256);
    /* One parse first: the array grows to the text's token count, and a
     * tokenizer reused for similar texts keeps that growth. */
    jsmn_parse(&t, text.data(), text.size());
    for (auto _ : st) {
        int32_t n = jsmn_parse(&t, text.data(), text.size());
        if (n <= 0)
            st.SkipWithError("parse failed");
        benchmark::DoNotOptimize(t.tokens);
    }
    jsmn_destroy(&t);
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * text.size()));
}

void BM_Tokenize_RapidJsonReader(benchmark::State &st)
{
    std::string text = gen_text(static_cast<size_t>(st.range(0)));
    rapidjson::Reader reader;
    rapidjson::BaseReaderHandler<> handler;
    for (auto _ : st) {
        rapidjson::StringStream in(text.c_str());
        if (reader.Parse(in, handler).IsError())
            st.SkipWithError("parse failed");
        benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * text.size()));
}

BENCHMARK(BM_Tokenize_RapidJsonReader)->RangeMultiplier(10)->Range(10000, 10000000);
BENCHMARK(BM_Tokenize_Jsmn)->RangeMultiplier(10)->Range(10000, 10000000);

} // namespace
