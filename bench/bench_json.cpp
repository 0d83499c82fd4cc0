/*
 * The JSON writer against RapidJSON's PrettyWriter (2-space indent, into a
 * StringBuffer that keeps its capacity), in one run, producing the same
 * document shape: a top-level array of records, each an object with string
 * and number members, a nested object and a one-line array of numbers
 * (RapidJSON's kFormatSingleLineArray). The writer's output is consumed
 * after each document, which keeps its last block. Throughput is bytes of
 * output per second.
 */
#include <benchmark/benchmark.h>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <string>

#include "zor_json.h"

namespace
{

const char *const names[] = {"eth0", "eth1", "bond0", "lo"};

void write_zor(zor_json_ctx *j, int records)
{
    zor_json_start_arr(j, 1);
    for (int i = 0; i < records; i++) {
        zor_json_start_obj(j);
        zor_json_pair_quotes(j, "name", "%s", names[i & 3]);
        zor_json_pair_noquotes(j, "index", "%d", i);
        zor_json_pair_noquotes(j, "enabled", "%s", (i & 1) ? "true" : "false");
        zor_json_start_obj_pair(j, "stats");
        zor_json_pair_noquotes(j, "rx", "%u", 1000u * static_cast<unsigned>(i));
        zor_json_pair_noquotes(j, "tx", "%u", 77u * static_cast<unsigned>(i));
        zor_json_end_obj(j);
        zor_json_start_arr_pair(j, "vlans", 0);
        for (int v = 0; v < 4; v++)
            zor_json_arr_val_noquotes(j, "%d", 100 + v);
        zor_json_end_arr(j);
        zor_json_end_obj(j);
    }
    zor_json_end_arr(j);
}

template <typename W> void write_rapidjson(W &w, int records)
{
    w.StartArray();
    for (int i = 0; i < records; i++) {
        w.StartObject();
        w.Key("name");
        w.String(names[i & 3]);
        w.Key("index");
        w.Int(i);
        w.Key("enabled");
        w.Bool(i & 1);
        w.Key("stats");
        w.StartObject();
        w.Key("rx");
        w.Uint(1000u * static_cast<unsigned>(i));
        w.Key("tx");
        w.Uint(77u * static_cast<unsigned>(i));
        w.EndObject();
        w.Key("vlans");
        w.SetFormatOptions(rapidjson::kFormatSingleLineArray);
        w.StartArray();
        for (int v = 0; v < 4; v++)
            w.Int(100 + v);
        w.EndArray();
        w.SetFormatOptions(rapidjson::kFormatDefault);
        w.EndObject();
    }
    w.EndArray();
}

void BM_JsonWrite_RapidJsonPretty(benchmark::State &st)
{
    const int records = static_cast<int>(st.range(0));
    rapidjson::StringBuffer out;
    size_t bytes = 0;
    for (auto _ : st) {
        out.Clear();
        rapidjson::PrettyWriter<rapidjson::StringBuffer> w(out);
        w.SetIndent(' ', 2);
        write_rapidjson(w, records);
        bytes = out.GetSize();
        benchmark::DoNotOptimize(out.GetString());
    }
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * bytes));
    st.counters["doc_bytes"] = static_cast<double>(bytes);
}

void BM_JsonWrite_Zor(benchmark::State &st)
{
    const int records = static_cast<int>(st.range(0));
    zor_buffer b = {};
    zor_json_ctx j;
    size_t bytes = 0;
    for (auto _ : st) {
        zor_json_init(&j, &b, 2, 0);
        write_zor(&j, records);
        bytes = b.size;
        benchmark::ClobberMemory();
        zor_buffer_consume(&b, b.size);
    }
    zor_buffer_free(&b);
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * bytes));
    st.counters["doc_bytes"] = static_cast<double>(bytes);
}

BENCHMARK(BM_JsonWrite_RapidJsonPretty)->Arg(10)->Arg(1000);
BENCHMARK(BM_JsonWrite_Zor)->Arg(10)->Arg(1000);

} // namespace
