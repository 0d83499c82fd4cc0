/*
 * The C++ interface (zor.hpp): record layout, typed values and defaults
 * against a model, deliveries and notifiers, transactions, callable
 * lifetimes, exceptions at the C boundary, ranges, JSON writer, tokenizer
 * and buffer against the C calls they stand for.
 */
#include "zor_test.h"
#include "zor.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
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
struct narrow {
    uint8_t x;
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

TEST(Hpp, LayoutFollowsTheStruct)
{
    zor::datatypes types;
    auto t = types.add("t", {{"u8", "uint", 1}, {"m16", "mem", 16}});
    zor::schema schema(types);
    auto kr = schema.add_kind<rec>();
    auto kn = schema.add_kind<narrow>();
    auto kw = schema.add_kind<wide>();
    EXPECT_EQ(kr.field(&rec::s, types.str()).get()->offset, offsetof(rec, s));
    EXPECT_EQ(kn.field(&narrow::x, t[0]).get()->offset, offsetof(narrow, x));
    auto wb = kw.field(&wide::bytes, t[1]);
    EXPECT_EQ(wb.get()->offset, offsetof(wide, bytes));
    zor::store st(schema);
    /* Nine registrations: two bytes of queued bits in every block. */
    int delivered = 0;
    for (int i = 0; i < 9; i++)
        st.watch(kw, {wb}, [&](zor::batch<wide> &bt) { delivered += bt.size(); }).enable();
    st.process();
    auto check = [&](auto k, auto *r) {
        using R = std::remove_pointer_t<decltype(r)>;
        const zor_reg_rec_info *info = k.get();
        EXPECT_EQ(reinterpret_cast<uintptr_t>(r) % alignof(R), 0u);
        EXPECT_GE(info->rec_offset, sizeof(zor_reg_entry));
        EXPECT_EQ(info->bitfield_offset, info->rec_offset + sizeof(R));
        auto *e = reinterpret_cast<zor_reg_entry *>(reinterpret_cast<char *>(r) - info->rec_offset);
        EXPECT_EQ(zor_reg_rec(e), r);
        EXPECT_EQ(zor_reg_db_rec_info(e), info);
        const auto *bytes = reinterpret_cast<const unsigned char *>(r);
        EXPECT_EQ(std::count(bytes, bytes + sizeof(R), 0), static_cast<long>(sizeof(R)));
    };
    for (int i = 0; i < 5; i++) {
        check(kr, st.create(kr));
        check(kn, st.create(kn));
        wide *w = st.create(kw);
        check(kw, w);
        unsigned char v[16] = {static_cast<unsigned char>(i + 1)};
        wb.set(*w, v);
    }
    EXPECT_EQ(st.count(kw), 5u);
    st.process();
    EXPECT_EQ(delivered, 45);
}

/* Random sets, unsets, flag changes and removals against a model. */
TEST(Hpp, ValuesDefaultsDeliveriesMatchAModel)
{
    struct model {
        std::optional<int32_t> a;
        std::optional<uint32_t> b;
        bool on = false, g_set = false, g = false, removed = false;
    };
    fixture f;
    zor::store st(f.schema);
    std::map<rec *, model> m;
    std::map<rec *, bool> delivered; /* record -> deleting */
    std::set<rec *> queued;
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
    st.watch(f.k, {f.b},
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
                                        EXPECT_EQ(parts.present_count + parts.deleting_count,
                                                  bt.size());
                                        return true;
             })
        .enable();
    st.process();
    std::mt19937 rng(17);
    std::vector<rec *> recs;
    for (int round = 0; round < 300; round++) {
        if (recs.size() < 12 || rng() % 8 == 0) {
            recs.push_back(st.create(f.k));
            m[recs.back()];
        }
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
            expected_notified += v != x.a;
            if (v != x.a) {
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
                queued.insert(r);
            x.b = v;
            break;
        }
        case 2: {
            bool v = rng() % 2;
            f.on.set(*r, v);
            if (v != x.on)
                queued.insert(r);
            x.on = v;
            break;
        }
        case 3:
            x.g_set = rng() % 2;
            f.g.set(*r, x.g_set);
            break;
        case 4:
            f.on.trigger(*r);
            queued.insert(r);
            break;
        default:
            st.remove(*r);
            x.removed = true;
            removed++;
            if (x.b || x.on) /* re-queued for the fields it has */
                queued.insert(r);
            break;
        }
        if (rng() % 4 == 0) {
            std::map<rec *, bool> expected;
            for (rec *p : queued)
                expected[p] = m[p].removed || (!m[p].b && !m[p].on);
            st.process();
            EXPECT_EQ(delivered, expected);
            delivered.clear();
            queued.clear();
            for (auto it = m.begin(); it != m.end();) /* removed: freed, the address may recur */
                it = it->second.removed ? m.erase(it) : std::next(it);
            recs.clear();
            for (auto &[p, y] : m) {
                recs.push_back(p);
                EXPECT_EQ(f.a.get(*p) ? std::optional<int32_t>(*f.a.get(*p)) : std::nullopt, y.a);
                EXPECT_EQ(f.b.get_explicit(*p) != nullptr, y.b.has_value());
                EXPECT_EQ(f.b.get_or(*p, 99), y.b ? *y.b : y.on ? 7u : 99u);
                EXPECT_EQ(f.on.get(*p), y.on);
                EXPECT_EQ(f.g.get(*p), true);
                EXPECT_EQ(f.g.get_explicit(*p), y.g_set);
            }
        }
    }
    st.process();
    EXPECT_EQ(notified, expected_notified);
    EXPECT_EQ(deleted, removed);
    uint32_t live = 0;
    for (auto &[p, y] : m)
        live += !y.removed;
    EXPECT_EQ(st.count(f.k), live);
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
        for (int i = 0; i < 6; i++) {
            rec *r = st.create(f.k);
            f.a.set(*r, i);
            f.s.set(*r, zor::interned("t" + std::to_string(i)).id());
        }
        st.process();
        for (int round = 0; round < 40; round++) {
            while (st.count(f.k) < 4)
                f.a.set(*st.create(f.k), round);
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
            if (round % 2) {
                moved.commit();
                EXPECT_EQ(state(), after);
            } else {
                moved.rollback();
                EXPECT_EQ(state(), before);
            }
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

TEST(Hpp, ThrowingUpdateCallbackFailsTheDelivery)
{
    fixture f;
    zor::store st(f.schema);
    int calls = 0;
    auto reg = st.watch(f.k, {f.a}, [&](zor::batch<rec> &bt) {
        calls++;
        if (!bt.resync())
            throw std::runtime_error("bad");
        return true;
    });
    reg.enable();
    st.process();
    rec *r = st.create(f.k);
    f.a.set(*r, 1);
    EXPECT_THROW(st.process(), std::runtime_error);
    EXPECT_TRUE(reg.failed());
    f.a.set(*r, 2);
    EXPECT_NO_THROW(st.process()); /* failed: dropped, nothing pending */
    EXPECT_EQ(calls, 1);
    reg.resync();
    st.process();
    EXPECT_EQ(calls, 2);
    EXPECT_FALSE(reg.failed());
}

TEST(HppDeathTest, BrokenRulesStop)
{
    fixture f;
    zor::store st(f.schema);
    st.create(f.k);
    ZOR_EXPECT_ASSERT(st.watch(f.k, {f.a}, [](zor::batch<rec> &) {}), "open_kind",
                      "!kind_has_records");
    ZOR_EXPECT_ASSERT(f.schema.add_kind<narrow>(), "add_kind", "!schema_has_store");
    ZOR_EXPECT_ASSERT(f.k.flag(), "check_open", "!schema_has_store");
    zor::datatypes types;
    zor::schema sc(types);
    auto k = sc.add_kind<rec>();
    ZOR_EXPECT_ASSERT(k.field(&rec::a, types.boolean());
                      k.field(&rec::s, types.flag()), "field", "type->size == sizeof(T)");
    rec *r = st.create(f.k);
    st.on_change(f.a, [](rec &, const int32_t *) { throw 1; });
    EXPECT_DEATH(f.a.set(*r, 5), "terminate");
}

TEST(Hpp, RangesWalkOnceWithLookAhead)
{
    struct node {
        zor_list_link link;
        int v;
    };
    node nodes[5] = {};
    zor_list list;
    zor_list_init(&list, offsetof(node, link));
    for (int i = 0; i < 5; i++) {
        nodes[i].v = i;
        zor_list_append(&list, &nodes[i]);
    }
    zor_list_iter_state st1, st2, st3;
    zor::iter<node> it([&](zor_iter *i) { return zor_list_iterator(i, &st1, &list); });
    std::vector<int> seen;
    for (node &n : it) {
        seen.push_back(n.v);
        zor_list_remove(&list, &n); /* the walk has fetched the next one already */
    }
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
    for (node &n : it)
        ADD_FAILURE() << "walked twice: " << n.v;
    for (int i = 0; i < 3; i++)
        zor_list_append(&list, &nodes[i]);
    zor::iter<node> first([&](zor_iter *i) { return zor_list_iterator(i, &st2, &list); });
    zor::iter<node> second([&](zor_iter *i) { return zor_list_iterator(i, &st3, &list); });
    zor_iter *members[] = {first.get(), second.get()};
    zor::iter<node> chain([&](zor_iter *i) { return zor_iter_chain_iterator(i, 2, members); });
    seen.clear();
    for (node &n : chain)
        seen.push_back(n.v);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 0, 1, 2}));
    zor::iter<node> none([](zor_iter *) { return 0; });
    EXPECT_TRUE(none.begin() == none.end());
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

size_t piece_len(char c)
{
    if (c == '"' || c == '\\' || c == '\n' || c == '\t' || c == '\r')
        return 2;
    return static_cast<unsigned char>(c) < 32 ? 6 : 1;
}

/* Escaped strings decode to the original, cut at an escape boundary within 255 bytes. */
TEST(Hpp, JsonStringsEscapeAndCutCleanly)
{
    std::mt19937 rng(5);
    for (int round = 0; round < 200; round++) {
        std::string in(rng() % 300, '\0');
        for (char &ch : in)
            ch = static_cast<char>(rng() % 4 ? 32 + rng() % 95 : rng() % 40);
        zor::buffer out;
        zor::json(out).value(in);
        std::string text = out.str();
        text = text.substr(text.find('"'), text.rfind('"') - text.find('"') + 1);
        ASSERT_GE(text.size(), 2u);
        ASSERT_LE(text.size(), 257u);
        std::string dec;
        for (size_t i = 1; i + 1 < text.size(); i++) {
            const unsigned char ch = static_cast<unsigned char>(text[i]);
            ASSERT_TRUE(ch >= 32 && ch != '"') << round;
            if (ch != '\\') {
                dec += text[i];
                continue;
            }
            const char e = text[++i];
            if (e == 'u') {
                dec += static_cast<char>(std::stoi(text.substr(i + 1, 4), nullptr, 16));
                i += 4;
            } else {
                dec += e == 'n' ? '\n' : e == 't' ? '\t' : e == 'r' ? '\r' : e;
            }
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
    std::mt19937 rng(9);
    zor::buffer b;
    std::string model;
    for (int i = 0; i < 1000; i++) {
        switch (rng() % 5) {
        case 0: {
            int64_t v = static_cast<int64_t>(rng()) * (rng() % 2 ? 1 : -1) * 977;
            b << v;
            model += std::to_string(v);
            break;
        }
        case 1: {
            double d = std::ldexp(static_cast<double>(rng()), static_cast<int>(rng() % 80) - 40);
            zor::buffer nb;
            nb << d;
            std::string t = nb.str();
            EXPECT_EQ(std::strtod(t.c_str(), nullptr), d); /* round trip */
            b << d;
            model += t;
            break;
        }
        case 2:
            b << 'c' << true;
            model += "ctrue";
            break;
        default: {
            std::string s(rng() % 300, static_cast<char>('a' + rng() % 26));
            b << s;
            model += s;
        }
        }
    }
    zor::buffer moved(std::move(b));
    EXPECT_EQ(moved.str(), model);
    EXPECT_EQ(moved.size(), model.size());
    moved.consume(10);
    b = std::move(moved);
    EXPECT_EQ(b.str(), model.substr(10));
    std::string with_nul("a\0b", 3);
    EXPECT_EQ(zor::to_view(zor::to_str(with_nul)), with_nul);
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
