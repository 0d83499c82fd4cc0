/*
 * The C++ interface (zor.hpp) against the C calls it stands for: record layout, a model of values
 * and deliveries, transactions, callables, exceptions, ranges, JSON, tokens, buffer, strings.
 */
#include "zor_test.h"
#include "zor.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>

namespace
{

struct rec {
    int32_t a;
    uint32_t b;
    zor_string_id s;
};
struct wide {
    char c;
    alignas(16) unsigned char bytes[16];
};

/* Live texts in the strings table (the "<unset>" text included). */
uint32_t live_strings()
{
    zor_dict *d = zor_datatype_strings_dict_get();
    uint32_t n = 0;
    for (uint32_t id = 0; id < d->next_id; id++)
        n += d->entries[id] != nullptr && d->entries[id]->record != nullptr;
    return n;
}

/* One kind `rec`: a, b (default 7 while `on` is set), s; flags on, g (default on). */
struct fixture {
    zor::datatypes types;
    zor::schema schema{types};
    zor::kind<rec> k = schema.add_kind<rec>();
    zor::field<rec, int32_t> a = k.field(&rec::a, types.int32());
    zor::field<rec, uint32_t> b = k.field(&rec::b, types.uint32());
    zor::field<rec, zor_string_id> s = k.field(&rec::s, types.str());
    zor::flag<rec> on = k.flag();
    zor::flag<rec> g = k.flag();
    fixture()
    {
        k.set_default(b, 7u, on);
        k.set_default(g);
    }
};

} // namespace

/* Records sit aligned after the entry header, zeroed; values never reach the bits after them. */
TEST(Hpp, LayoutFollowsTheStruct)
{
    zor::datatypes types;
    zor::schema schema(types);
    auto kw = schema.add_kind<wide>();
    auto wb = kw.field(&wide::bytes, types.add("t", {{"m16", "mem", 16}})[0]);
    EXPECT_EQ(wb.get()->offset, offsetof(wide, bytes));
    zor::store st(schema);
    int delivered = 0; /* nine registrations: two bytes of queued bits in every block */
    for (int i = 0; i < 9; i++)
        st.watch(kw, {wb}, [&](zor::batch<wide> &bt) { delivered += bt.size(); }).enable();
    st.process();
    const zor_reg_rec_info *info = kw.get();
    unsigned char v[16];
    memset(v, 0xff, sizeof(v));
    for (int i = 0; i < 5; i++) {
        wide *w = st.create(kw);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(w) % alignof(wide), 0u);
        EXPECT_EQ(info->bitfield_offset, info->rec_offset + sizeof(wide));
        EXPECT_EQ(std::count(w->bytes, w->bytes + 16, 0), 16);
        wb.set(*w, v);
    }
    st.process();
    EXPECT_EQ(delivered, 45);
}

/* Random sets, unsets, flag changes and removals against a model. */
TEST(Hpp, ValuesDefaultsDeliveriesMatchAModel)
{
    struct model {
        std::optional<int32_t> a;
        std::optional<uint32_t> b;
        bool on = false, g_set = false, removed = false;
    };
    fixture f;
    zor::store st(f.schema);
    std::map<rec *, model> m;
    std::map<rec *, bool> delivered, expected; /* record -> deleting */
    int notified = 0, expected_notified = 0, deleted = 0, removed = 0, batches = 0;
    const int32_t *last_a = nullptr;
    st.on_change(f.a, [&](rec &r, const int32_t *v) {
        EXPECT_EQ(f.a.get_explicit(r) != nullptr, m[&r].a.has_value()); /* old state */
        notified++;
        last_a = v;
    });
    st.on_delete(f.k, [&](rec &r) {
        EXPECT_TRUE(m[&r].removed);
        deleted++;
    });
    auto take =
        [&](zor::batch<rec> &bt) { /* watches b and, through it, on */
                                   EXPECT_FALSE(bt.resync());
                                   if (++batches % 2) {
                                       for (auto u : bt) {
                                           EXPECT_EQ(u.removed(), m[&u.rec].removed);
                                           EXPECT_TRUE(
                                               delivered.emplace(&u.rec, u.deleting()).second);
                                       }
                                       return true;
                                   }
                                   auto parts = bt.split(); /* the other way to read a batch */
                                   for (rec &r : parts.present)
                                       EXPECT_TRUE(delivered.emplace(&r, false).second);
                                   for (rec &r : parts.deleting)
                                       EXPECT_TRUE(delivered.emplace(&r, true).second);
                                   EXPECT_EQ(parts.present_count + parts.deleting_count, bt.size());
                                   return true;
        };
    st.watch(f.k, {f.b}, take).enable();
    st.process();
    std::mt19937 rng(17);
    std::vector<rec *> recs;
    for (int round = 0; round < 300; round++) {
        if (recs.size() < 12 || rng() % 8 == 0)
            m[recs.emplace_back(st.create(f.k))];
        rec *r = recs[rng() % recs.size()];
        model &x = m[r];
        if (x.removed)
            continue;
        switch (rng() % 6) {
        case 0: {
            std::optional<int32_t> v;
            if (rng() % 3)
                v = static_cast<int32_t>(rng() % 5) - 2;
            v ? f.a.set(*r, *v) : f.a.unset(*r);
            if (v != x.a) {
                expected_notified++;
                EXPECT_EQ(last_a ? std::optional<int32_t>(*last_a) : std::nullopt, v);
            }
            x.a = v;
            break;
        }
        case 1: {
            std::optional<uint32_t> v;
            if (rng() % 3)
                v = rng() % 3;
            v ? f.b.set(*r, *v) : f.b.unset(*r);
            if (v != x.b)
                expected[r];
            x.b = v;
            break;
        }
        case 2: {
            bool v = rng() % 2;
            f.on.set(*r, v);
            if (v != x.on)
                expected[r];
            x.on = v;
            break;
        }
        case 3:
            x.g_set = rng() % 2;
            f.g.set(*r, x.g_set);
            break;
        case 4:
            f.on.trigger(*r);
            expected[r];
            break;
        default:
            st.remove(*r);
            x.removed = true;
            removed++;
            if (x.b || x.on) /* re-queued for the fields it has */
                expected[r];
        }
        if (rng() % 4 == 0) {
            for (auto &[p, del] : expected)
                del = m[p].removed || (!m[p].b && !m[p].on);
            st.process();
            EXPECT_EQ(delivered, expected);
            delivered.clear();
            expected.clear();
            for (auto it = m.begin(); it != m.end();) /* removed: freed, the address may recur */
                it = it->second.removed ? m.erase(it) : std::next(it);
            recs.clear();
            for (auto &[p, y] : m) {
                recs.push_back(p);
                EXPECT_EQ(f.a.get(*p) ? std::optional<int32_t>(*f.a.get(*p)) : std::nullopt, y.a);
                EXPECT_EQ(f.b.get_explicit(*p) != nullptr, y.b.has_value());
                EXPECT_EQ(f.b.get_or(*p, 99), y.b ? *y.b : y.on ? 7u : 99u);
                EXPECT_EQ(f.on.get(*p), y.on);
                EXPECT_TRUE(f.g.get(*p));
                EXPECT_EQ(f.g.get_explicit(*p), y.g_set);
            }
        }
    }
    st.process();
    EXPECT_EQ(notified, expected_notified);
    EXPECT_EQ(deleted, removed);
    EXPECT_EQ(st.count(f.k),
              std::count_if(m.begin(), m.end(), [](auto &p) { return !p.second.removed; }));
}

/* A transaction keeps the changes on commit and undoes them otherwise. */
TEST(Hpp, TransactionsCommitOrRestore)
{
    fixture f;
    const uint32_t strings_before = live_strings();
    {
        zor::store st(f.schema);
        auto state = [&] {
            std::multiset<std::pair<int32_t, std::string>> out;
            for (rec &r : st.all(f.k))
                out.emplace(f.a.get_or(r, -1), f.s.get(r) ? zor::text(*f.s.get(r)) : "-");
            return out;
        };
        std::mt19937 rng(3);
        for (int round = 0; round < 40; round++) {
            while (st.count(f.k) < 4)
                f.s.set(*st.create(f.k), zor::interned("t" + std::to_string(round)).id());
            st.process();
            auto before = state();
            std::optional<zor::transaction> t(std::in_place, st);
            std::vector<rec *> live;
            for (rec &r : st.all(f.k))
                live.push_back(&r);
            std::set<rec *> gone;
            for (int op = 0; op < 5; op++) {
                rec *r = live[rng() % live.size()];
                if (gone.count(r))
                    continue;
                switch (rng() % 4) {
                case 0:
                    f.a.set(*r, static_cast<int32_t>(rng() % 100));
                    break;
                case 1:
                    f.s.set(*r, zor::interned("u" + std::to_string(rng() % 4)).id());
                    break;
                case 2:
                    f.a.set(*st.create(f.k), 1000);
                    break;
                default:
                    gone.insert(r);
                    st.remove(*r);
                }
                st.process();
            }
            auto after = state();
            zor::transaction moved(std::move(*t));
            t.reset();
            EXPECT_TRUE(moved.active());
            round % 2 ? moved.commit() : moved.rollback();
            EXPECT_FALSE(moved.active());
            EXPECT_EQ(state(), round % 2 ? after : before);
        }
    }
    EXPECT_EQ(live_strings(), strings_before); /* the store released every value */
}

TEST(Hpp, CallablesLiveAsLongAsTheStore)
{
    auto token = std::make_shared<int>(0);
    int unlinked = 0;
    std::optional<zor::store> st;
    zor::kind<rec> k;
    zor::field<rec, int32_t> a;
    {
        fixture f; /* the store keeps schema and datatypes alive */
        k = f.k;
        a = f.a;
        f.k.on_unlink([&unlinked, token](rec &) { unlinked++; });
        st.emplace(f.schema);
    }
    st->on_change(a, [token](rec &, const int32_t *) {});
    st->on_create(k, [token](rec &) {});
    st->watch(k, {a}, [token](zor::batch<rec> &) {}).enable();
    rec *r = st->create(k);
    a.set(*r, 1);
    st->remove(*r);
    st->process();
    EXPECT_EQ(unlinked, 1);
    st->create(k);
    EXPECT_GT(token.use_count(), 4);
    st.reset();
    EXPECT_EQ(token.use_count(), 1);
}

/*
 * An update callback that throws fails its delivery; the next process, transaction, commit or
 * rollback rethrows the exception, once.
 */
TEST(Hpp, ThrowingUpdateCallbackIsRethrownOnce)
{
    using Next = std::function<void(zor::store &, std::optional<zor::transaction> &)>;
    const Next next[] = {[](zor::store &st, auto &) { st.process(); },
                         [](zor::store &st, auto &t) { t.emplace(st); },
                         [](zor::store &, auto &t) { t->commit(); },
                         [](zor::store &, auto &t) { t->rollback(); }};
    for (int i = 0; i < 4; i++) {
        fixture f;
        zor::store st(f.schema);
        int calls = 0;
        auto reg = st.watch(f.k, {f.a}, [&](zor::batch<rec> &bt) {
            calls++;
            if (!bt.resync())
                throw std::runtime_error("bad");
        });
        reg.enable();
        st.process();
        rec *r = st.create(f.k);
        std::optional<zor::transaction> t;
        if (i >= 2)
            t.emplace(st);
        f.a.set(*r, 1);
        EXPECT_THROW(next[i](st, t), std::runtime_error) << i;
        EXPECT_TRUE(reg.failed());
        EXPECT_EQ(st.get()->snapshot_active, 0u) << i; /* nothing left open */
        f.a.set(*r, 2);
        EXPECT_NO_THROW(st.process()); /* failed: dropped, nothing pending */
        EXPECT_EQ(calls, 1);
        reg.resync();
        st.process();
        EXPECT_EQ(calls, 2);
        EXPECT_FALSE(reg.failed());
    }
}

TEST(HppDeathTest, BrokenRulesStop)
{
    struct Case {
        const char *function, *text;
        std::function<void(fixture &, zor::store &)> run;
    };
    const Case cases[] = {
        {"open_kind", "!kind_has_records",
         [](fixture &f, zor::store &st) {
             st.create(f.k);
             st.watch(f.k, {f.a}, [](zor::batch<rec> &) {});
         }},
        {"add_kind", "!schema_has_store", [](fixture &f, auto &) { f.schema.add_kind<rec>(); }},
        {"check_open", "!schema_has_store", [](fixture &f, auto &) { f.k.flag(); }},
        {"field", "type->size == sizeof(T)",
         [](fixture &f, auto &) {
             zor::schema(f.types).add_kind<rec>().field(&rec::s, f.types.flag());
         }},
    };
    for (const Case &c : cases) {
        fixture f;
        zor::store st(f.schema);
        ZOR_EXPECT_ASSERT(c.run(f, st), c.function, c.text) << c.text;
    }
    fixture f; /* a notifier must not throw: the registry cannot undo the change */
    zor::store st(f.schema);
    st.on_change(f.a, [](rec &, const int32_t *) { throw 1; });
    EXPECT_DEATH(f.a.set(*st.create(f.k), 5), "terminate");
}

TEST(Hpp, RangesWalkOnceWithLookAhead)
{
    struct node {
        zor_list_link link;
    } nodes[3];
    zor_list list;
    zor_list_init(&list, offsetof(node, link));
    for (node &n : nodes)
        zor_list_append(&list, &n);
    zor_list_iter_state st;
    zor::iter<node> it([&](zor_iter *i) { return zor_list_iterator(i, &st, &list); });
    std::vector<node *> seen;
    for (node &n : it) {
        seen.push_back(&n);
        zor_list_remove(&list, &n); /* the walk has fetched the next one already */
    }
    for (node &n : it)
        seen.push_back(&n); /* walked once only */
    EXPECT_EQ(seen, (std::vector<node *>{&nodes[0], &nodes[1], &nodes[2]}));
}

/* Values through zor::json read as the C writer's with the matching formats. */
TEST(Hpp, JsonValuesMatchTheCWriter)
{
    zor::buffer ours, theirs;
    zor::json j(ours, 3);
    zor_json_ctx c;
    zor_json_init(&c, theirs.get(), 3, 0);
    j.object().array("x", false);
    zor_json_start_obj(&c);
    zor_json_start_arr_pair(&c, "x", 0);
    j.value(INT64_MIN).value(UINT64_MAX).value(true).value(nullptr).value(-0.5).value(NAN);
    zor_json_arr_val_noquotes(&c, "%lld", static_cast<long long>(INT64_MIN));
    zor_json_arr_val_noquotes(&c, "%llu", static_cast<unsigned long long>(UINT64_MAX));
    zor_json_arr_val_noquotes(&c, "true");
    zor_json_arr_val_noquotes(&c, "null");
    zor_json_arr_val_noquotes(&c, "-0.5");
    zor_json_arr_val_noquotes(&c, "null");
    j.end_array().pair("s", std::string_view("q\"\\\n\1", 5)).pair("l", zor::literal{"[1]"});
    j.pair("c", 'c');
    zor_json_end_arr(&c);
    zor_json_pair_quotes(&c, "s", "q\\\"\\\\\\n\\u0001");
    zor_json_pair_noquotes(&c, "l", "[1]");
    zor_json_pair_quotes(&c, "c", "c");
    j.pair("n", std::string_view()).object("o").end_object().end_object();
    zor_json_pair_quotes(&c, "n", "%s", "");
    zor_json_start_obj_pair(&c, "o");
    zor_json_end_obj(&c);
    zor_json_end_obj(&c);
    EXPECT_EQ(ours.str(), theirs.str());
}

/* Escaped strings decode to the original, cut at an escape boundary within 255 bytes. */
TEST(Hpp, JsonStringsEscapeAndCutCleanly)
{
    auto piece_len = [](unsigned char c) -> size_t {
        return c == '"' || c == '\\' || c == '\n' || c == '\t' || c == '\r' ? 2 : c < 32 ? 6 : 1;
    };
    std::mt19937 rng(5);
    for (int round = 0; round < 200; round++) {
        std::string in(rng() % 300, '\0');
        for (char &ch : in)
            ch = static_cast<char>(rng() % 4 ? 32 + rng() % 95 : rng() % 40);
        zor::buffer out;
        zor::json(out).value(in);
        std::string text = out.str();
        text = text.substr(text.find('"'), text.rfind('"') - text.find('"') + 1);
        ASSERT_LE(text.size(), 257u);
        std::string dec;
        for (size_t i = 1; i + 1 < text.size(); i++) {
            const unsigned char ch = static_cast<unsigned char>(text[i]);
            ASSERT_TRUE(ch >= 32 && ch != '"') << round;
            const char e = ch == '\\' ? text[++i] : 0;
            if (e == 'u')
                dec += static_cast<char>(std::stoi(text.substr(i + 1, 4), nullptr, 16));
            i += e == 'u' ? 4 : 0;
            if (e != 'u')
                dec += e == 'n' ? '\n' : e == 't' ? '\t' : e == 'r' ? '\r' : e ? e : text[i];
        }
        ASSERT_EQ(dec, in.substr(0, dec.size()));
        if (dec.size() < in.size()) { /* cut only when the next piece would not fit */
            ASSERT_GT(text.size() - 2 + piece_len(in[dec.size()]), 255u);
        }
    }
}

TEST(Hpp, TokensAreTheCTokens)
{
    const std::string docs[] = {R"({"a": [1, "x\"y", {"b": null}], "c": true})", "[]",
                                R"(["unterminated)", "[1, 2]]", ""};
    zor::tokenizer moved(2);
    zor::tokenizer tz(std::move(moved));
    for (const std::string &d : docs) {
        jsmn_tokenizer c;
        jsmn_init(&c, nullptr, 2);
        int32_t n = jsmn_parse(&c, d.data(), d.size());
        EXPECT_EQ(tz.parse(d), n);
        zor::tokens toks = tz.tokens();
        EXPECT_EQ(toks.size(), n >= 0 ? static_cast<uint32_t>(n) : c.next_token);
        uint32_t i = 0;
        for (zor::token t : toks) {
            const jsmn_token &ct = c.tokens[i++];
            EXPECT_EQ(t.type(), ct.type);
            EXPECT_EQ(t.text(), zor::to_view(ct.str));
            EXPECT_EQ(t.skip(), ct.skip);
            EXPECT_EQ(t.parent(), ct.parent);
            if (t.is_string() && t.text() == "x\\\"y") {
                EXPECT_EQ(t.unescaped(), "x\"y");
            }
        }
        EXPECT_EQ(i, toks.size());
        jsmn_destroy(&c);
    }
}

TEST(Hpp, BufferAndStrings)
{
    zor::buffer b;
    b << INT64_MIN << ' ' << 0.1 << ' ' << 1e300 << ' ' << true << std::string(5000, 'x');
    zor::buffer moved(std::move(b));
    const std::string want =
        std::to_string(INT64_MIN) + " 0.1 1e+300 true" + std::string(5000, 'x');
    EXPECT_EQ(moved.size(), want.size());
    moved.consume(10);
    b = std::move(moved);
    EXPECT_EQ(b.str(), want.substr(10));
    EXPECT_EQ(zor::to_view(zor::to_str(std::string_view("a\0b", 3))), std::string_view("a\0b", 3));
    EXPECT_NE(zor::to_str(std::string_view()).ptr, nullptr);
    zor::datatypes types;
    const uint32_t before = live_strings();
    {
        zor::interned x("text"), y("text");
        std::optional<zor::datatypes> more(std::in_place); /* shares the one strings table */
        zor::interned w("other");
        more.reset();
        EXPECT_EQ(w.view(), "other");
        EXPECT_EQ(x.id(), y.id());
        zor::interned z(std::move(x));
        EXPECT_EQ(z.view(), "text");
        EXPECT_EQ(live_strings(), before + 2);
    }
    EXPECT_EQ(live_strings(), before);
}
