/*
 * The C++ interface (zor.hpp) where the C++ tour does not reach: broken rules, a throwing update
 * callback, record blocks, the JSON string cut and token unescaping.
 */
#include "zor_test.h"
#include "zor.hpp"

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace
{

struct rec {
    int32_t a;
    zor_string_id s;
};

struct fixture {
    zor::datatypes types;
    zor::schema schema{types};
    zor::kind<rec> k = schema.add_kind<rec>();
    zor::field<rec, int32_t> a = k.field(&rec::a, types.int32());
};

} // namespace

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

/*
 * Records sit aligned after the entry header; a throwing init frees its block; a removed record
 * is delivered as removed and deleting; a second datatypes object shares the strings table.
 */
TEST(Hpp, RecordBlocksAndRemoval)
{
    struct wide {
        char c;
        alignas(16) unsigned char bytes[16];
    };
    zor::datatypes types;
    zor::schema schema(types);
    zor::kind<wide> k = schema.add_kind<wide>();
    zor::flag<wide> on = k.flag();
    zor::store st(schema);
    std::map<wide *, std::pair<bool, bool>> seen; /* record -> removed, deleting */
    st.watch(k, {on}, [&](zor::batch<wide> &bt) {
          for (auto u : bt)
              seen[&u.rec] = {u.removed(), u.deleting()};
      }).enable();
    wide *w[2];
    for (wide *&p : w) {
        p = st.create(k);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(wide), 0u);
        on.set(*p);
    }
    EXPECT_THROW(st.create(k, [](wide &) { throw std::runtime_error("init"); }),
                 std::runtime_error);
    EXPECT_EQ(st.count(k), 2u);
    st.process();
    seen.clear();
    zor::interned text("text");
    std::optional<zor::datatypes> more(std::in_place);
    more.reset();
    EXPECT_EQ(text.view(), "text");
    st.remove(*w[0]);
    on.trigger(*w[1]);
    st.process();
    const std::map<wide *, std::pair<bool, bool>> want = {{w[0], {true, true}},
                                                          {w[1], {false, false}}};
    EXPECT_EQ(seen, want);
}

/* A string value is cut to 255 bytes of output, never inside an escape; tokens read it back. */
TEST(Hpp, JsonStringsCutAt255AndReadBack)
{
    const std::string x(253, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {x + "\n", x + "\\n"},
        {x + "x\n", x + "x"},
        {x + "\1", x},
        {x + "\"\\", x + "\\\""},
        {std::string(300, 'x'), x + "xx"},
    };
    for (const auto &[in, want] : cases) {
        zor::buffer out;
        zor::json(out).value(in);
        EXPECT_EQ(out.str(), '"' + want + '"') << want.size();
    }
    zor::buffer out;
    zor::json(out).array().value("q\"\\/").end_array();
    const std::string doc = out.str(); /* the tokens point into it */
    zor::tokenizer tz;
    ASSERT_EQ(tz.parse(doc), 2);
    EXPECT_EQ(tz.tokens()[1].unescaped(), "q\"\\/");
}
