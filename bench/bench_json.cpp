/*
 * The JSON writer against RapidJSON's PrettyWriter (2-space indent, into a
 * StringBuffer that keeps its capacity) and against the plain writer of the
 * tests (zor_json_ref.h: zor_printf per piece, zor_putc per space), each
 * writing the same ~1 MB pretty document: a feed of posts, each an object
 * with string, integer, boolean and null members, a nested author object,
 * a one-line array of tags (RapidJSON's kFormatSingleLineArray), a
 * one-value-per-line array of link objects and a one-line array of numbers.
 * The document's texts are made up front from a fixed seed, so every
 * writer gets the same input and the timing holds only the writing.
 *
 * The three writers run in interleaved rounds; each keeps its best time
 * per document over all rounds so far (best_us), and the last round's
 * rows show the final figures (processor time of the thread, which
 * the other work on a shared machine does not inflate), with the ratios vs_rapidjson and vs_plain.
 * The zor writers' timing includes consuming the document (freeing all but
 * the last block), as a write-and-output loop does.
 */
#include <benchmark/benchmark.h>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <time.h>
#include <string>
#include <vector>

#include "zor_json.h"
#include "../tests/zor_json_ref.h"

namespace
{

struct Link {
    std::string url, title;
    int64_t clicks;
};

struct Post {
    int64_t id;
    std::string id_str, created_at, text, lang;
    std::string author_name, author_handle, author_location;
    int64_t followers, following;
    bool verified, has_url, truncated, favorited;
    int retweets, likes;
    std::vector<std::string> tags;
    std::vector<Link> links;
    int scores[4];
};

/* The feed, made once from a fixed seed. */
const std::vector<Post> &feed()
{
    static std::vector<Post> posts;
    if (!posts.empty())
        return posts;
    static const char *const words[] = {"config",  "route",   "vlan", "change", "rollout", "check",
                                        "network", "service", "the",  "a",      "failed",  "passed",
                                        "edge",    "region",  "node", "update", "policy",  "review",
                                        "latency", "up",      "down", "new",    "old",     "link"};
    uint64_t s = 0x9e3779b97f4a7c15u;
    auto next = [&s](uint32_t n) {
        s = s * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>((s >> 33) % n);
    };
    auto sentence = [&](uint32_t min, uint32_t spread) {
        std::string t;
        for (uint32_t w = min + next(spread); w > 0; w--)
            t += std::string(t.empty() ? "" : " ") + words[next(24)];
        return t;
    };
    for (int i = 0; i < 1450; i++) {
        Post p;
        p.id = 1000000000000000000 + static_cast<int64_t>(i) * 7919 * 104729;
        p.id_str = std::to_string(p.id);
        p.created_at = "2026-11-" + std::to_string(10 + i % 19) + "T" +
                       std::to_string(10 + i % 13) + ":" + std::to_string(10 + i % 49) + ":07Z";
        p.text = sentence(6, 18);
        p.lang = i % 5 ? "en" : "de";
        p.author_name = sentence(2, 2);
        p.author_handle = words[next(24)] + std::to_string(next(100000));
        p.author_location = i % 3 ? sentence(1, 3) : "";
        p.followers = next(5000000);
        p.following = next(3000);
        p.verified = next(7) == 0;
        p.has_url = next(2);
        p.truncated = next(9) == 0;
        p.favorited = next(3) == 0;
        p.retweets = static_cast<int>(next(20000));
        p.likes = static_cast<int>(next(90000));
        for (uint32_t t = next(4); t > 0; t--)
            p.tags.push_back(words[next(24)]);
        for (uint32_t l = next(3); l > 0; l--)
            p.links.push_back({"https://example.org/" + sentence(2, 3).replace(0, 0, "p/"),
                               sentence(2, 5), static_cast<int64_t>(next(100000)) - 5000});
        for (int &sc : p.scores)
            sc = static_cast<int>(next(2000)) - 1000;
        posts.push_back(p);
    }
    return posts;
}

/* Calls through a writer context, the library's or the plain one: the same document. */
struct ZorWriter {
    zor_json_ctx *j;
    void start_obj()
    {
        zor_json_start_obj(j);
    }
    void start_obj(const char *key)
    {
        zor_json_start_obj_pair(j, key);
    }
    void end_obj()
    {
        zor_json_end_obj(j);
    }
    void start_arr(int layout)
    {
        zor_json_start_arr(j, layout);
    }
    void start_arr(const char *key, int layout)
    {
        zor_json_start_arr_pair(j, key, layout);
    }
    void end_arr()
    {
        zor_json_end_arr(j);
    }
    void str(const char *key, const std::string &v)
    {
        zor_json_pair_quotes(j, key, "%s", v.c_str());
    }
    void str(const std::string &v)
    {
        zor_json_arr_val_quotes(j, "%s", v.c_str());
    }
    void i64(const char *key, int64_t v)
    {
        zor_json_pair_noquotes(j, key, "%lld", static_cast<long long>(v));
    }
    void i32(const char *key, int v)
    {
        zor_json_pair_noquotes(j, key, "%d", v);
    }
    void i32(int v)
    {
        zor_json_arr_val_noquotes(j, "%d", v);
    }
    void boolean(const char *key, bool v)
    {
        zor_json_pair_noquotes(j, key, "%s", v ? "true" : "false");
    }
    void null(const char *key)
    {
        zor_json_pair_noquotes(j, key, "null");
    }
};

struct PlainWriter {
    zor_json_ctx *j;
    void start_obj()
    {
        zor_json_ref::start_obj(j);
    }
    void start_obj(const char *key)
    {
        zor_json_ref::start_obj_pair(j, key);
    }
    void end_obj()
    {
        zor_json_ref::end_obj(j);
    }
    void start_arr(int layout)
    {
        zor_json_ref::start_arr(j, false, nullptr, layout);
    }
    void start_arr(const char *key, int layout)
    {
        zor_json_ref::start_arr(j, true, key, layout);
    }
    void end_arr()
    {
        zor_json_ref::end_arr(j);
    }
    void str(const char *key, const std::string &v)
    {
        zor_json_ref::value(j, true, key, true, "%s", v.c_str());
    }
    void str(const std::string &v)
    {
        zor_json_ref::value(j, false, nullptr, true, "%s", v.c_str());
    }
    void i64(const char *key, int64_t v)
    {
        zor_json_ref::value(j, true, key, false, "%lld", static_cast<long long>(v));
    }
    void i32(const char *key, int v)
    {
        zor_json_ref::value(j, true, key, false, "%d", v);
    }
    void i32(int v)
    {
        zor_json_ref::value(j, false, nullptr, false, "%d", v);
    }
    void boolean(const char *key, bool v)
    {
        zor_json_ref::value(j, true, key, false, "%s", v ? "true" : "false");
    }
    void null(const char *key)
    {
        zor_json_ref::value(j, true, key, false, "null");
    }
};

template <class W> void write_feed(W &w)
{
    w.start_arr(1);
    for (const Post &p : feed()) {
        w.start_obj();
        w.i64("id", p.id);
        w.str("id_str", p.id_str);
        w.str("created_at", p.created_at);
        w.str("text", p.text);
        w.boolean("truncated", p.truncated);
        w.start_obj("author");
        w.str("name", p.author_name);
        w.str("handle", p.author_handle);
        if (p.author_location.empty())
            w.null("location");
        else
            w.str("location", p.author_location);
        w.i64("followers_count", p.followers);
        w.i64("friends_count", p.following);
        w.boolean("verified", p.verified);
        w.end_obj();
        w.start_arr("tags", 0);
        for (const std::string &t : p.tags)
            w.str(t);
        w.end_arr();
        w.start_arr("links", 1);
        for (const Link &l : p.links) {
            w.start_obj();
            w.str("url", l.url);
            w.str("title", l.title);
            w.i64("clicks", l.clicks);
            w.end_obj();
        }
        w.end_arr();
        w.null("coordinates");
        w.null("place");
        w.i32("retweet_count", p.retweets);
        w.i32("favorite_count", p.likes);
        w.boolean("favorited", p.favorited);
        w.str("lang", p.lang);
        w.start_arr("scores", 0);
        for (int sc : p.scores)
            w.i32(sc);
        w.end_arr();
        w.end_obj();
    }
    w.end_arr();
}

/* The same document through RapidJSON. */
using Pretty = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

void one_line(Pretty &w, const char *key)
{
    w.Key(key);
    w.SetFormatOptions(rapidjson::kFormatSingleLineArray);
    w.StartArray();
}

void write_feed_rapidjson(Pretty &w)
{
    w.StartArray();
    for (const Post &p : feed()) {
        w.StartObject();
        w.Key("id");
        w.Int64(p.id);
        w.Key("id_str");
        w.String(p.id_str.c_str(), static_cast<rapidjson::SizeType>(p.id_str.size()));
        w.Key("created_at");
        w.String(p.created_at.c_str(), static_cast<rapidjson::SizeType>(p.created_at.size()));
        w.Key("text");
        w.String(p.text.c_str(), static_cast<rapidjson::SizeType>(p.text.size()));
        w.Key("truncated");
        w.Bool(p.truncated);
        w.Key("author");
        w.StartObject();
        w.Key("name");
        w.String(p.author_name.c_str(), static_cast<rapidjson::SizeType>(p.author_name.size()));
        w.Key("handle");
        w.String(p.author_handle.c_str(), static_cast<rapidjson::SizeType>(p.author_handle.size()));
        w.Key("location");
        if (p.author_location.empty())
            w.Null();
        else
            w.String(p.author_location.c_str(),
                     static_cast<rapidjson::SizeType>(p.author_location.size()));
        w.Key("followers_count");
        w.Int64(p.followers);
        w.Key("friends_count");
        w.Int64(p.following);
        w.Key("verified");
        w.Bool(p.verified);
        w.EndObject();
        one_line(w, "tags");
        for (const std::string &t : p.tags)
            w.String(t.c_str(), static_cast<rapidjson::SizeType>(t.size()));
        w.EndArray();
        w.SetFormatOptions(rapidjson::kFormatDefault);
        w.Key("links");
        w.StartArray();
        for (const Link &l : p.links) {
            w.StartObject();
            w.Key("url");
            w.String(l.url.c_str(), static_cast<rapidjson::SizeType>(l.url.size()));
            w.Key("title");
            w.String(l.title.c_str(), static_cast<rapidjson::SizeType>(l.title.size()));
            w.Key("clicks");
            w.Int64(l.clicks);
            w.EndObject();
        }
        w.EndArray();
        w.Key("coordinates");
        w.Null();
        w.Key("place");
        w.Null();
        w.Key("retweet_count");
        w.Int(p.retweets);
        w.Key("favorite_count");
        w.Int(p.likes);
        w.Key("favorited");
        w.Bool(p.favorited);
        w.Key("lang");
        w.String(p.lang.c_str(), static_cast<rapidjson::SizeType>(p.lang.size()));
        one_line(w, "scores");
        for (int sc : p.scores)
            w.Int(sc);
        w.EndArray();
        w.SetFormatOptions(rapidjson::kFormatDefault);
        w.EndObject();
    }
    w.EndArray();
}

/* One document per call; noinline so that callgrind can count each writer's instructions
 * (--toggle-collect=doc_*). */
__attribute__((noinline)) size_t doc_rapidjson(rapidjson::StringBuffer &out)
{
    out.Clear();
    Pretty w(out);
    w.SetIndent(' ', 2);
    write_feed_rapidjson(w);
    return out.GetSize();
}

template <class W> __attribute__((noinline)) size_t doc_zor(zor_buffer *b)
{
    zor_json_ctx j;
    zor_json_init(&j, b, 2, 0);
    W w{&j};
    write_feed(w);
    size_t bytes = b->size;
    benchmark::ClobberMemory();
    zor_buffer_consume(b, b->size);
    return bytes;
}

/* Best time per document (microseconds) so far, per writer. */
enum { RAPIDJSON, ZOR, PLAIN, WRITERS };
double best_us[WRITERS] = {1e30, 1e30, 1e30};

/* This thread's processor time: other work on the machine does not count. */
double cpu_us()
{
    struct timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

template <class F> void timed(benchmark::State &st, int writer, F doc)
{
    size_t bytes = 0;
    for (auto _ : st) {
        double t0 = cpu_us();
        bytes = doc();
        double us = cpu_us() - t0;
        if (us < best_us[writer])
            best_us[writer] = us;
    }
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * bytes));
    st.counters["doc_bytes"] = static_cast<double>(bytes);
    st.counters["best_us"] = best_us[writer];
    st.counters["vs_rapidjson"] = best_us[writer] / best_us[RAPIDJSON];
    st.counters["vs_plain"] = best_us[writer] / best_us[PLAIN];
}

void BM_Json_RapidJsonPretty(benchmark::State &st)
{
    rapidjson::StringBuffer out;
    timed(st, RAPIDJSON, [&] { return doc_rapidjson(out); });
}

void BM_Json_Zor(benchmark::State &st)
{
    zor_buffer b = {};
    timed(st, ZOR, [&] { return doc_zor<ZorWriter>(&b); });
    zor_buffer_free(&b);
}

void BM_Json_Plain(benchmark::State &st)
{
    zor_buffer b = {};
    timed(st, PLAIN, [&] { return doc_zor<PlainWriter>(&b); });
    zor_buffer_free(&b);
}

/* Interleaved rounds: RapidJSON, zor, plain, RapidJSON, ... */
int register_rounds()
{
    feed();
    for (int round = 0; round < 7; round++) {
        benchmark::RegisterBenchmark("Json/RapidJsonPretty", BM_Json_RapidJsonPretty)
            ->MinTime(0.05)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark("Json/Zor", BM_Json_Zor)
            ->MinTime(0.05)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark("Json/Plain", BM_Json_Plain)
            ->MinTime(0.05)
            ->Unit(benchmark::kMicrosecond);
    }
    return 0;
}
[[maybe_unused]] const int registered = register_rounds();

} // namespace
