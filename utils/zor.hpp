/*
 * zor.hpp - the C++17 interface of zor, header-only, over the C functions.
 *
 * Everything lives in namespace zor and costs what the C calls it wraps
 * cost: handles are one pointer, callbacks reach the caller's callable
 * through one direct call (no std::function), records are the caller's own
 * structs inside the registry's blocks.
 *
 *   zor::datatypes types;                        // core types; strings table
 *   zor::schema schema(types);
 *   auto itf = schema.add_kind<iface>();         // a kind from a struct
 *   auto mtu = itf.field(&iface::mtu, types.uint32());
 *   auto up = itf.flag();
 *   itf.set_default(mtu, uint32_t(1500), up);    // 1500 while `up` is set
 *   zor::store store(schema);                    // lays the kinds out
 *   store.on_change(mtu, [&](iface &r, const uint32_t *v) { ... });
 *   auto reg = store.watch(itf, {mtu, up}, [&](zor::batch<iface> &b) {
 *       for (auto u : b)
 *           check(u.rec, u.deleting());
 *       return true;                             // false: delivery failed
 *   });
 *   reg.enable();
 *   store.process();                             // takes the enable up
 *   iface *r = store.create(itf);                // zeroed, reported created
 *   mtu.set(*r, 9000);
 *   store.process();
 *   store.remove(*r);                            // sets the delete-pending flag
 *
 * Owners are move-only and release what they own in their destructors:
 * datatypes, schema, store, transaction, buffer, tokenizer, interned. A
 * store keeps its schema alive and a schema its datatypes, so they may be
 * destroyed in any order. The strings table of the "str" type lives while
 * any datatypes object does; do not also call zor_datatype_init/cleanup.
 *
 * Record structs must be standard-layout, trivially default-constructible
 * and trivially destructible: a record is created zeroed, inside a block
 * the registry lays out, and the block is released with free().
 *
 * Every kind declared here has a delete-pending flag (field 0), so records
 * are deleted by store::remove and snapshots can undo any change. The
 * store frees the blocks of records it created: when a deletion is carried
 * out, and, for records still live, when the store is destroyed (values
 * are released, no callback runs then).
 *
 * All update registrations of a kind come before its first record in a
 * store (a block carries one queued bit per registration): store::watch
 * and store::track stop with "!kind_has_records" otherwise.
 *
 * Exceptions never cross the C code. A notifier (on_change, on_create,
 * on_delete, on_unlink) that throws terminates the process: the registry
 * is in the middle of a change and cannot undo it. An update callback that
 * throws counts as a failed delivery (as if it returned false: the
 * registration receives nothing until a resync succeeds); the first such
 * exception is kept and rethrown by the next store::process, transaction
 * constructor, commit or rollback, once the C call has returned (a
 * transaction destroyed without commit leaves it for the next of these).
 */
#ifndef ZOR_HPP
#define ZOR_HPP

#include "zor.h"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>
#if defined(__cpp_exceptions) || defined(__EXCEPTIONS)
#include <exception>
#define ZOR_HPP_EXCEPTIONS 1
#else
#define ZOR_HPP_EXCEPTIONS 0
#endif

namespace zor
{

/* ---- strings --------------------------------------------------------------- */

inline std::string_view to_view(zor_str s) noexcept
{
    return std::string_view(s.ptr, static_cast<size_t>(s.len));
}

/* A view of the same bytes; never a null pointer, also for an empty view. */
inline zor_str to_str(std::string_view v) noexcept
{
    zor_str s;
    s.ptr = v.data() != nullptr ? v.data() : "";
    s.len = v.size();
    return s;
}

/* ---- iterator ranges --------------------------------------------------------- */

namespace detail
{

/*
 * A range over a zor_iter whose items Conv turns into what the loop sees.
 * Like ZOR_ITER_FOREACH it walks only a fresh iterator, once; the walk
 * keeps the look-ahead, so the current item may be unlinked or freed.
 */
template <class Conv> class iter_range
{
    zor_iter *it_;
    const void *ctx_;

  public:
    struct sentinel {
    };
    class iterator
    {
        zor_iter *it_;
        void *cur_;
        const void *ctx_;

      public:
        iterator(zor_iter *it, void *cur, const void *ctx) : it_(it), cur_(cur), ctx_(ctx) {}
        decltype(auto) operator*() const
        {
            return Conv::get(cur_, ctx_);
        }
        iterator &operator++()
        {
            cur_ = zor_iter_next(it_);
            return *this;
        }
        bool operator!=(sentinel) const
        {
            return cur_ != nullptr;
        }
        bool operator==(sentinel) const
        {
            return cur_ == nullptr;
        }
    };

    explicit iter_range(zor_iter *it, const void *ctx = nullptr) : it_(it), ctx_(ctx) {}
    iterator begin() const
    {
        void *first = zor_iter_walk_begin(it_) ? zor_iter_first(it_) : nullptr;
        return iterator(it_, first, ctx_);
    }
    sentinel end() const
    {
        return {};
    }
    zor_iter *get() const
    {
        return it_;
    }
};

template <class T> struct as_ref {
    static T &get(void *item, const void *)
    {
        return *static_cast<T *>(item);
    }
};

} // namespace detail

/* Any zor_iter walked by a range-for; its items are T objects. */
template <class T> using range = detail::iter_range<detail::as_ref<T>>;

/*
 * Owns a zor_iter filled by a constructor call, frees it when destroyed:
 *   zor::iter<itf> it([&](zor_iter *i) { return zor_list_iterator(i, &st, &list); });
 *   for (itf &x : it) ...
 * Not movable (other iterators may point to it); return it by value only.
 */
template <class T> class iter
{
    zor_iter it_;

  public:
    template <class Make> explicit iter(Make &&make)
    {
        zor_iter_create(&it_, std::forward<Make>(make)(&it_));
    }
    iter(const iter &) = delete;
    iter &operator=(const iter &) = delete;
    ~iter()
    {
        zor_iter_free(&it_);
    }
    zor_iter *get()
    {
        return &it_;
    }
    auto begin()
    {
        return range<T>(&it_).begin();
    }
    auto end()
    {
        return range<T>(&it_).end();
    }
};

/* ---- datatypes --------------------------------------------------------------- */

namespace detail
{

/* The process-wide strings table, alive while anyone holds the session. */
inline std::shared_ptr<void> strings_session()
{
    static std::weak_ptr<void> slot;
    std::shared_ptr<void> s = slot.lock();
    if (s.use_count() == 0) { /* the session owns no object: its count tells */
        zor_datatype_init();
        s = std::shared_ptr<void>(nullptr, [](void *) { zor_datatype_cleanup(); });
        slot = s;
    }
    return s;
}

struct types_state {
    std::shared_ptr<void> strings = strings_session();
    zor_dict db;
    explicit types_state(uint64_t size)
    {
        zor_datatype_db_init(&db, size);
    }
    ~types_state()
    {
        zor_dict_destroy(&db);
    }
};

} // namespace detail

/* One entry of a registration table; unnamed operations are inherited. */
struct type_def {
    const char *name;
    const char *parent;
    uint64_t size = 0;
    uint32_t properties = 0;
    zor_datatype_str_fn str = nullptr;
    zor_datatype_parse_fn parse = nullptr;
    zor_datatype_copy_fn copy = nullptr;
    zor_datatype_copy_fn write = nullptr;
    zor_datatype_cmp_fn cmp_eq = nullptr;
    zor_datatype_cmp_fn cmp = nullptr;
    zor_datatype_free_fn free = nullptr;
};

/* A datatype database with the core types, and the strings table. */
class datatypes
{
    std::shared_ptr<detail::types_state> s_;
    friend class schema;

  public:
    explicit datatypes(uint64_t size = 64) : s_(std::make_shared<detail::types_state>(size)) {}
    datatypes(datatypes &&) noexcept = default;
    datatypes &operator=(datatypes &&) noexcept = default;
    datatypes(const datatypes &) = delete;
    datatypes &operator=(const datatypes &) = delete;
    zor_dict *get() const
    {
        return &s_->db;
    }
    /* The descriptor registered under name id `id` (ZOR_DATATYPE_ID_*), or null. */
    const zor_datatype_info *find(uint32_t id) const
    {
        return zor_datatype_info_id(&s_->db, id);
    }
    const zor_datatype_info *flag() const
    {
        return find(ZOR_DATATYPE_ID_FLAG);
    }
    const zor_datatype_info *str() const
    {
        return find(ZOR_DATATYPE_ID_STR);
    }
    const zor_datatype_info *int32() const
    {
        return find(ZOR_DATATYPE_ID_INT);
    }
    const zor_datatype_info *uint32() const
    {
        return find(ZOR_DATATYPE_ID_UINT);
    }
    const zor_datatype_info *boolean() const
    {
        return find(ZOR_DATATYPE_ID_BOOL);
    }
    const zor_datatype_info *opaque() const
    {
        return find(ZOR_DATATYPE_ID_OPAQUE);
    }
    /* Registers the table under `ns`; the descriptors in table order. */
    std::vector<const zor_datatype_info *> add(std::string_view ns,
                                               std::initializer_list<type_def> defs)
    {
        std::vector<zor_datatype_reg_info> table;
        table.reserve(defs.size());
        for (const type_def &d : defs) {
            zor_datatype_reg_info r = {};
            r.name = d.name;
            r.parent = d.parent;
            r.info.size = d.size;
            r.info.properties = d.properties;
            r.info.str = d.str;
            r.info.parse = d.parse;
            r.info.copy = d.copy;
            r.info.write = d.write;
            r.info.cmp_eq = d.cmp_eq;
            r.info.cmp = d.cmp;
            r.info.free = d.free;
            table.push_back(r);
        }
        std::vector<zor_datatype_info *> out(table.size());
        zor_datatype_register(&s_->db, to_str(ns), table.size(), table.data(), 0, out.data());
        return std::vector<const zor_datatype_info *>(out.begin(), out.end());
    }
};

/* The display text of a value ("<Unknown>" without a str operation). */
inline std::string_view show(const void *value, const zor_datatype_info *type)
{
    return zor_datatype_str(value, type);
}

/* The text of a live string id. */
inline std::string_view text(zor_string_id id)
{
    return to_view(zor_datatype_string_from_id(id));
}

/* One reference to an interned text, released when destroyed. */
class interned
{
    zor_string_id id_ = 0;
    bool held_ = false;

  public:
    explicit interned(std::string_view t) : id_(zor_datatype_string_ref_get(to_str(t))), held_(true)
    {
    }
    interned(interned &&o) noexcept : id_(o.id_), held_(std::exchange(o.held_, false)) {}
    interned &operator=(interned &&o) noexcept
    {
        std::swap(id_, o.id_);
        std::swap(held_, o.held_);
        return *this;
    }
    ~interned()
    {
        if (held_)
            zor_dict_id_remove_ref(zor_datatype_strings_dict_get(), id_);
    }
    zor_string_id id() const
    {
        return id_;
    }
    std::string_view view() const
    {
        return text(id_);
    }
};

/* ---- schema -------------------------------------------------------------------- */

template <class Rec> class kind;
class schema;
class store;
class transaction;

namespace detail
{

struct holder_base {
    virtual ~holder_base() = default;
};
template <class F> struct holder final : holder_base {
    F fn;
    explicit holder(F f) : fn(std::move(f)) {}
};

/* Bytes from a block's entry header to the caller's record of type Rec. */
template <class Rec> constexpr uint64_t rec_offset()
{
    return (sizeof(zor_reg_entry) + alignof(Rec) - 1) / alignof(Rec) * alignof(Rec);
}

template <class Rec> Rec &rec_of(zor_reg_entry *e)
{
    return *reinterpret_cast<Rec *>(reinterpret_cast<char *>(e) + rec_offset<Rec>());
}

template <class Rec> zor_reg_entry *entry_of(const Rec &r)
{
    return reinterpret_cast<zor_reg_entry *>(
        const_cast<char *>(reinterpret_cast<const char *>(&r)) - rec_offset<Rec>());
}

template <class Rec> struct as_rec {
    static Rec &get(void *entry, const void *)
    {
        return rec_of<Rec>(static_cast<zor_reg_entry *>(entry));
    }
};

struct schema_state;

struct kind_state {
    schema_state *schema;
    zor_reg_rec_info *info;
    zor_reg_field_info *removal;
    uint64_t rec_offset;
    uint64_t rec_size;
    std::unique_ptr<holder_base> unlink;
    void (*unlink_call)(holder_base *, void *rec) = nullptr;
};

struct schema_state {
    std::shared_ptr<types_state> types;
    const zor_datatype_info *flag_type;
    zor_reg_db db;
    bool frozen = false;
    std::vector<std::unique_ptr<kind_state>> kinds;     /* index = kind id */
    std::vector<std::unique_ptr<holder_base>> defaults; /* default values' storage */
    explicit schema_state(std::shared_ptr<types_state> t)
        : types(std::move(t)), flag_type(zor_datatype_info_id(&types->db, ZOR_DATATYPE_ID_FLAG))
    {
        zor_reg_db_init(&db);
    }
    ~schema_state()
    {
        zor_reg_db_destroy(&db);
    }
    /* Lays every kind out; no kind, field or default may follow. */
    void freeze()
    {
        if (frozen)
            return;
        for (auto &k : kinds)
            zor_reg_db_rec_set_offsets(k->info, k->rec_offset, k->rec_size);
        frozen = true;
    }
};

template <class Rec, class T> uint64_t member_offset(T Rec::*member)
{
    Rec r{};
    return static_cast<uint64_t>(reinterpret_cast<const char *>(&(r.*member)) -
                                 reinterpret_cast<const char *>(&r));
}

} // namespace detail

/* A field of kind Rec whose value is a T member of the record. */
template <class Rec, class T> class field
{
    zor_reg_field_info *info_ = nullptr;

  public:
    field() = default;
    explicit field(zor_reg_field_info *info) : info_(info) {}
    zor_reg_field_info *get() const
    {
        return info_;
    }
    void set(Rec &r, const T &value) const
    {
        zor_reg_field_set(&r, info_, &value);
    }
    void unset(Rec &r) const
    {
        zor_reg_field_set(&r, info_, nullptr);
    }
    /* The record's value, else the default when it applies, else null (absent). */
    const T *get(const Rec &r) const
    {
        return static_cast<const T *>(zor_reg_field_get(&r, info_));
    }
    /* The record's own value, else null. */
    const T *get_explicit(const Rec &r) const
    {
        return static_cast<const T *>(zor_reg_field_get_explicit(&r, info_));
    }
    template <class U = T>
    std::enable_if_t<!std::is_array_v<U>, U> get_or(const Rec &r,
                                                    const std::common_type_t<U> &fallback) const
    {
        const T *v = get(r);
        return v != nullptr ? *v : fallback;
    }
    bool is_set(const Rec &r) const
    {
        return get_explicit(r) != nullptr;
    }
    /* As of the active snapshot's take (as get/get_explicit without one). */
    const T *snapshot_get(const Rec &r) const
    {
        return static_cast<const T *>(zor_reg_snapshot_field_get(&r, info_));
    }
    const T *snapshot_get_explicit(const Rec &r) const
    {
        return static_cast<const T *>(zor_reg_snapshot_field_get_explicit(&r, info_));
    }
};

/* A flag of kind Rec. */
template <class Rec> class flag
{
    zor_reg_field_info *info_ = nullptr;

  public:
    flag() = default;
    explicit flag(zor_reg_field_info *info) : info_(info) {}
    zor_reg_field_info *get() const
    {
        return info_;
    }
    void set(Rec &r, bool on = true) const
    {
        zor_reg_flag_set(&r, info_, on ? 1 : 0);
    }
    void clear(Rec &r) const
    {
        set(r, false);
    }
    /* Queues the record for the registrations watching the flag; changes nothing. */
    void trigger(Rec &r) const
    {
        zor_reg_flag_trigger(&r, info_);
    }
    /* Set, or defaulted on. */
    bool get(const Rec &r) const
    {
        return zor_reg_flag_get(&r, info_) != 0;
    }
    bool get_explicit(const Rec &r) const
    {
        return zor_reg_flag_get_explicit(&r, info_) != 0;
    }
    bool snapshot_get(const Rec &r) const
    {
        return zor_reg_snapshot_flag_get(&r, info_) != 0;
    }
    bool snapshot_get_explicit(const Rec &r) const
    {
        return zor_reg_snapshot_flag_get_explicit(&r, info_) != 0;
    }
};

/* Any field or flag of kind Rec, for lists of watched fields. */
template <class Rec> struct field_ref {
    zor_reg_field_info *info;
    template <class T> field_ref(field<Rec, T> f) : info(f.get()) {}
    field_ref(flag<Rec> f) : info(f.get()) {}
};

/* A list of fields of kind Rec (Rec deduced from the kind, not from the list). */
template <class Rec>
using fields_of = std::initializer_list<field_ref<typename std::common_type<Rec>::type>>;

/* A record kind declared from the struct Rec; a handle owned by its schema. */
template <class Rec> class kind
{
    detail::kind_state *k_ = nullptr;
    friend class schema;
    friend class store;
    explicit kind(detail::kind_state *k) : k_(k) {}
    void check_open() const
    {
        const bool schema_has_store = k_->schema->frozen;
        ZOR_ASSERT(!schema_has_store);
    }

  public:
    kind() = default;
    zor_reg_rec_info *get() const
    {
        return k_->info;
    }
    uint32_t id() const
    {
        return k_->info->id;
    }
    /* A field at `member`, of a resolved datatype whose size is sizeof(T). */
    template <class T> zor::field<Rec, T> field(T Rec::*member, const zor_datatype_info *type) const
    {
        check_open();
        ZOR_ASSERT(type->size == sizeof(T));
        return zor::field<Rec, T>(
            zor_reg_db_rec_add_field(k_->info, detail::member_offset(member), type));
    }
    /* A flag (of the core "flag" type). */
    zor::flag<Rec> flag() const
    {
        check_open();
        return zor::flag<Rec>(zor_reg_db_rec_add_field(k_->info, 0, k_->schema->flag_type));
    }
    /* The delete-pending flag, set by store::remove. */
    zor::flag<Rec> removal_flag() const
    {
        return zor::flag<Rec>(k_->removal);
    }
    /* Read when the field is unset and `ctrl` (if given) is set. Once per field. */
    template <class T>
    void set_default(zor::field<Rec, T> f, const T &value, zor::flag<Rec> ctrl = {}) const
    {
        check_open();
        auto h = std::make_unique<detail::holder<T>>(value);
        zor_reg_db_field_set_default(f.get(), ctrl.get(), &h->fn);
        k_->schema->defaults.push_back(std::move(h));
    }
    /* The flag reads as on while unset (and `ctrl`, if given, is set). */
    void set_default(zor::flag<Rec> f, zor::flag<Rec> ctrl = {}) const
    {
        check_open();
        static const char on = 1;
        zor_reg_db_field_set_default(f.get(), ctrl.get(), &on);
    }
    /*
     * `fn(Rec &)` runs when a deleted record leaves a store for good, before
     * its block is freed: take it out of your own indexes.
     */
    template <class F> void on_unlink(F fn) const
    {
        check_open();
        using H = detail::holder<F>;
        k_->unlink = std::make_unique<H>(std::move(fn));
        k_->unlink_call = [](detail::holder_base *h, void *rec) noexcept {
            static_cast<H *>(h)->fn(*static_cast<Rec *>(rec));
        };
    }
};

/* The schema: record kinds from structs, their fields, flags and defaults. */
class schema
{
    std::shared_ptr<detail::schema_state> s_;
    friend class store;

    static void unlink_entry(zor_reg_ds *ds, zor_reg_entry *e);
    static void free_entry(zor_reg_ds *, zor_reg_entry *e)
    {
        free(e);
    }

  public:
    explicit schema(const datatypes &types) : s_(std::make_shared<detail::schema_state>(types.s_))
    {
    }
    schema(schema &&) noexcept = default;
    schema &operator=(schema &&) noexcept = default;
    schema(const schema &) = delete;
    schema &operator=(const schema &) = delete;
    zor_reg_db *get() const
    {
        return &s_->db;
    }
    /* A new kind of records of type Rec; before the first store of the schema. */
    template <class Rec> kind<Rec> add_kind()
    {
        static_assert(std::is_standard_layout_v<Rec>, "a record is a standard-layout struct");
        static_assert(std::is_trivially_default_constructible_v<Rec> &&
                          std::is_trivially_destructible_v<Rec>,
                      "a record lives in a zeroed block released with free()");
        static_assert(alignof(Rec) <= alignof(std::max_align_t), "blocks come from calloc");
        const bool schema_has_store = s_->frozen;
        ZOR_ASSERT(!schema_has_store);
        auto k = std::make_unique<detail::kind_state>();
        k->schema = s_.get();
        k->info = zor_reg_db_rec_add(&s_->db);
        k->rec_offset = detail::rec_offset<Rec>();
        k->rec_size = sizeof(Rec);
        k->removal = zor_reg_db_rec_add_field(k->info, 0, s_->flag_type);
        zor_reg_db_rec_set_deletion_info(k->info, k->removal, unlink_entry, free_entry);
        s_->kinds.push_back(std::move(k));
        return kind<Rec>(s_->kinds.back().get());
    }
};

/* ---- update batches -------------------------------------------------------------- */

/* One record of a delivery. */
template <class Rec> struct update {
    Rec &rec;
    zor_reg_entry *entry;
    const zor_reg_cb_info *info;
    /* Being deleted, or none of the registration's fields is set any more. */
    bool deleting() const
    {
        return zor_reg_info_is_deleting(info, entry) != 0;
    }
    /* Its delete-pending flag is set. */
    bool removed() const
    {
        return zor_reg_info_is_record_deleting(entry) != 0;
    }
};

namespace detail
{
template <class Rec> struct as_update {
    static update<Rec> get(void *entry, const void *info)
    {
        auto *e = static_cast<zor_reg_entry *>(entry);
        return update<Rec>{rec_of<Rec>(e), e, static_cast<const zor_reg_cb_info *>(info)};
    }
};
} // namespace detail

/* Records of one kind yielded by an iterator of entries. */
template <class Rec> using records_range = detail::iter_range<detail::as_rec<Rec>>;

/*
 * What an update callback receives: the batch's information and, walked
 * once by a range-for, its records as update<Rec> (record and deleting test).
 */
template <class Rec> class batch
{
    zor_reg_cb_info *info_;
    zor_iter *entries_;

  public:
    batch(zor_reg_cb_info *info, zor_iter *entries) : info_(info), entries_(entries) {}
    zor_reg_cb_info *info() const
    {
        return info_;
    }
    bool resync() const
    {
        return zor_reg_info_is_resync(info_) != 0;
    }
    uint32_t size() const
    {
        return zor_reg_info_count(info_);
    }
    auto begin() const
    {
        return detail::iter_range<detail::as_update<Rec>>(entries_, info_).begin();
    }
    auto end() const
    {
        return detail::iter_range<detail::as_update<Rec>>(entries_, info_).end();
    }
    /* The records only, without the deleting test. */
    records_range<Rec> records() const
    {
        return records_range<Rec>(entries_);
    }
    /* Instead of walking: the records that still have a watched field, and the deleting ones. */
    struct parts {
        records_range<Rec> present;
        records_range<Rec> deleting;
        uint32_t present_count;
        uint32_t deleting_count;
    };
    parts split() const
    {
        zor_iter *set = nullptr, *del = nullptr;
        uint32_t ns = 0, nd = 0;
        zor_reg_info_iter(info_, &set, &del, &ns, &nd);
        return parts{records_range<Rec>(set), records_range<Rec>(del), ns, nd};
    }
};

/* ---- the data store ------------------------------------------------------------------ */

enum class level : uint32_t { zero = 0, one = ZOR_REG_LEVEL_1, two = ZOR_REG_LEVEL_2 };

/* An update registration (owned by its store). */
class registration
{
    zor_reg_rec_update *r_ = nullptr;

  public:
    registration() = default;
    explicit registration(zor_reg_rec_update *r) : r_(r) {}
    zor_reg_rec_update *get() const
    {
        return r_;
    }
    /* Active from the next processing of its level; with `resync`, all matching records then. */
    void enable(bool resync = false) const
    {
        zor_reg_enable(r_, resync ? 1 : 0);
    }
    void resync() const
    {
        zor_reg_resync(r_);
    }
    void disable() const
    {
        zor_reg_disable(r_);
    }
    bool enabled() const
    {
        return r_->enabled != 0;
    }
    bool failed() const
    {
        return r_->failed != 0;
    }
};

namespace detail
{

struct store_kind {
    uint64_t block_size = 0; /* fixed by the kind's first record */
    bool has_records = false;
};

struct store_state {
    std::shared_ptr<schema_state> schema;
    zor_reg_ds *ds = nullptr;
    std::vector<store_kind> kinds;
    std::vector<std::unique_ptr<holder_base>> callables;
#if ZOR_HPP_EXCEPTIONS
    std::exception_ptr error;
#endif

    explicit store_state(std::shared_ptr<schema_state> s) : schema(std::move(s))
    {
        schema->freeze();
        kinds.resize(schema->kinds.size());
        ds = zor_reg_ds_init(&schema->db, this);
        zor_reg_process(ds); /* activates the removal registrations at once */
    }
    ~store_state()
    {
        const bool transaction_open = ds->snapshot_active != 0;
        ZOR_ASSERT(!transaction_open);
        for (uint32_t i = 0; i < ds->rec_count; i++) {
            zor_iter it;
            zor_list_iter_state st;
            zor_reg_entry *e;
            zor_iter_create(&it, zor_list_iterator(&it, &st, &ds->recs[i].entries));
            ZOR_ITER_FOREACH (&it, e) {
                zor_reg_rec_free(e);
            }
            zor_iter_free(&it);
        }
        zor_reg_ds_destroy(ds);
    }
    template <class F> holder<std::decay_t<F>> *keep(F &&fn)
    {
        auto h = std::make_unique<holder<std::decay_t<F>>>(std::forward<F>(fn));
        auto *p = h.get();
        callables.push_back(std::move(h));
        return p;
    }
    void rethrow()
    {
#if ZOR_HPP_EXCEPTIONS
        if (error)
            std::rethrow_exception(std::exchange(error, nullptr));
#endif
    }
};

template <class F, class Rec> bool run_update(F &fn, batch<Rec> &b)
{
    if constexpr (std::is_void_v<decltype(fn(b))>) {
        fn(b);
        return true;
    } else {
        return static_cast<bool>(fn(b));
    }
}

template <class Rec, class F>
int update_trampoline(zor_reg_cb_info *info, zor_iter *entries, void *ctx) noexcept
{
    batch<Rec> b(info, entries);
#if ZOR_HPP_EXCEPTIONS
    try {
        return run_update(static_cast<holder<F> *>(ctx)->fn, b) ? 1 : 0;
    } catch (...) {
        auto *st = static_cast<store_state *>(zor_reg_info_ds_ctx(info));
        if (!st->error)
            st->error = std::current_exception();
        return 0;
    }
#else
    return run_update(static_cast<holder<F> *>(ctx)->fn, b) ? 1 : 0;
#endif
}

} // namespace detail

inline void schema::unlink_entry(zor_reg_ds *ds, zor_reg_entry *e)
{
    auto *st = static_cast<detail::store_state *>(zor_reg_ds_ctx_get(ds));
    detail::kind_state &k = *st->schema->kinds[zor_reg_db_rec_info(e)->id];
    if (k.unlink_call != nullptr)
        k.unlink_call(k.unlink.get(), zor_reg_rec(e));
}

/*
 * A data store of a schema: records, notifiers and update registrations.
 * Creating the first store of a schema lays its kinds out and closes it.
 */
class store
{
    std::unique_ptr<detail::store_state> s_;
    friend class transaction;

    template <class Rec> detail::store_kind &open_kind(kind<Rec> k)
    {
        detail::store_kind &sk = s_->kinds[k.id()];
        const bool kind_has_records = sk.has_records;
        ZOR_ASSERT(!kind_has_records);
        return sk;
    }

  public:
    explicit store(const schema &sc) : s_(std::make_unique<detail::store_state>(sc.s_)) {}
    zor_reg_ds *get() const
    {
        return s_->ds;
    }

    /* ---- records ---- */

    /*
     * A new record: a zeroed block of the kind's size, `init(Rec &)` run on
     * it (plain members only: values set here have no set bit), then
     * reported created (create notifiers run).
     */
    template <class Rec, class Init> Rec *create(kind<Rec> k, Init &&init)
    {
        detail::store_kind &sk = s_->kinds[k.id()];
        if (!sk.has_records) {
            sk.block_size = zor_reg_rec_size(s_->ds, k.get());
            sk.has_records = true;
        }
        auto *e = static_cast<zor_reg_entry *>(util_calloc(sk.block_size));
        Rec &r = detail::rec_of<Rec>(e);
#if ZOR_HPP_EXCEPTIONS
        try {
            std::forward<Init>(init)(r);
        } catch (...) {
            free(e);
            throw;
        }
#else
        std::forward<Init>(init)(r);
#endif
        zor_reg_rec_created(s_->ds, k.get(), e);
        return &r;
    }
    template <class Rec> Rec *create(kind<Rec> k)
    {
        return create(k, [](Rec &) {});
    }
    /* Sets the record's delete-pending flag; processing carries the deletion out. */
    template <class Rec> void remove(Rec &r)
    {
        zor_reg_entry *e = detail::entry_of(r);
        zor_reg_flag_set(&r, s_->schema->kinds[zor_reg_db_rec_info(e)->id]->removal, 1);
    }
    /* Live records of a kind, in creation order (not movable: use in place). */
    template <class Rec> class records
    {
        zor_iter it_;
        zor_list_iter_state st_;

      public:
        explicit records(zor_list *entries)
        {
            zor_iter_create(&it_, zor_list_iterator(&it_, &st_, entries));
        }
        records(const records &) = delete;
        records &operator=(const records &) = delete;
        ~records()
        {
            zor_iter_free(&it_);
        }
        auto begin()
        {
            return records_range<Rec>(&it_).begin();
        }
        auto end()
        {
            return records_range<Rec>(&it_).end();
        }
    };
    template <class Rec> records<Rec> all(kind<Rec> k)
    {
        return records<Rec>(&s_->ds->recs[k.id()].entries);
    }
    template <class Rec> uint32_t count(kind<Rec> k) const
    {
        return s_->ds->recs[k.id()].entries.count;
    }

    /* ---- notifiers: any callable, kept as long as the store ---- */

    /* `fn(Rec &rec, const T *value)` before each change; value null when unset. */
    template <class Rec, class T, class F> void on_change(field<Rec, T> f, F &&fn)
    {
        using H = detail::holder<std::decay_t<F>>;
        auto cb = [](void *rec, const zor_reg_field_info *, int, const void *value,
                     void *ctx) noexcept {
            static_cast<H *>(ctx)->fn(*static_cast<Rec *>(rec), static_cast<const T *>(value));
        };
        zor_register_field_update(s_->ds, f.get(), cb, s_->keep(std::forward<F>(fn)));
    }
    /* `fn(Rec &rec, bool on)` before each change of the flag. */
    template <class Rec, class F> void on_change(flag<Rec> f, F &&fn)
    {
        using H = detail::holder<std::decay_t<F>>;
        auto cb = [](void *rec, const zor_reg_field_info *, int is_set, const void *,
                     void *ctx) noexcept {
            static_cast<H *>(ctx)->fn(*static_cast<Rec *>(rec), is_set != 0);
        };
        zor_register_field_update(s_->ds, f.get(), cb, s_->keep(std::forward<F>(fn)));
    }
    /* `fn(Rec &)` for each record created from now on (and, with `existing`, now for the live
     * ones). */
    template <class Rec, class F> void on_create(kind<Rec> k, F &&fn, bool existing = false)
    {
        using H = detail::holder<std::decay_t<F>>;
        auto cb = [](void *rec, void *ctx) noexcept {
            static_cast<H *>(ctx)->fn(*static_cast<Rec *>(rec));
        };
        zor_register_rec_create(s_->ds, k.get(), cb, s_->keep(std::forward<F>(fn)),
                                existing ? 1 : 0);
    }
    /* `fn(Rec &)` when a record is taken out (its deletion carried out). */
    template <class Rec, class F> void on_delete(kind<Rec> k, F &&fn)
    {
        using H = detail::holder<std::decay_t<F>>;
        auto cb = [](void *rec, void *ctx) noexcept {
            static_cast<H *>(ctx)->fn(*static_cast<Rec *>(rec));
        };
        zor_register_rec_delete(s_->ds, k.get(), cb, s_->keep(std::forward<F>(fn)));
    }

    /* ---- update registrations: before the kind's first record ---- */

    /*
     * `fn(zor::batch<Rec> &)` with the records queued since its last
     * delivery whose watched `fields` changed; returns bool (false: failed)
     * or void. Not enabled yet: call enable() on the result; the processing
     * that takes the enable up drops what was queued before it (enable(true)
     * delivers the current records instead).
     */
    template <class Rec, class F>
    registration watch(kind<Rec> k, fields_of<Rec> fields, F &&fn, level lv = level::zero,
                       bool follow_ctrl = true)
    {
        open_kind(k);
        uint32_t flags = static_cast<uint32_t>(lv) | (follow_ctrl ? 0u : ZOR_REG_NO_CTRL_FLAGS);
        zor_reg_rec_update *r = zor_register_rec_update(
            s_->ds, k.get(), flags, detail::update_trampoline<Rec, std::decay_t<F>>,
            s_->keep(std::forward<F>(fn)));
        for (const field_ref<Rec> &f : fields)
            zor_reg_rec_update_field_add(r, f.info);
        return registration(r);
    }
    /*
     * Keeps `flag` equal to whether each record is present for `fields`
     * (some set, not deleted), or with `present` false, deleting. Not enabled yet.
     */
    template <class Rec>
    registration track(kind<Rec> k, flag<Rec> fl, fields_of<Rec> fields, bool present = true,
                       level lv = level::zero)
    {
        open_kind(k);
        zor_reg_rec_update *r =
            zor_reg_track(s_->ds, k.get(), static_cast<uint32_t>(lv), fl.get(), present ? 1 : 0);
        for (const field_ref<Rec> &f : fields)
            zor_reg_rec_update_field_add(r, f.info);
        return registration(r);
    }

    /* Delivers everything queued; then rethrows what an update callback threw. */
    void process()
    {
        zor_reg_process(s_->ds);
        s_->rethrow();
    }
};

/*
 * A snapshot of a store: taken when constructed; commit() keeps the changes,
 * rollback() (or destruction without commit) undoes them. Each runs
 * processing first, so none belongs inside a callback.
 */
class transaction
{
    detail::store_state *s_;

  public:
    /*
     * Processes first, so that an exception of an update callback is
     * rethrown before a snapshot is open: a constructor that throws leaves
     * nothing to close. The take then finds nothing queued.
     */
    explicit transaction(store &st) : s_(st.s_.get())
    {
        zor_reg_process(s_->ds);
        s_->rethrow();
        zor_reg_take_snapshot(s_->ds);
    }
    transaction(transaction &&o) noexcept : s_(std::exchange(o.s_, nullptr)) {}
    transaction &operator=(transaction &&) = delete;
    transaction(const transaction &) = delete;
    ~transaction()
    {
        if (s_ != nullptr)
            zor_reg_restore_snapshot(s_->ds);
    }
    bool active() const
    {
        return s_ != nullptr;
    }
    void commit()
    {
        detail::store_state *s = std::exchange(s_, nullptr);
        ZOR_ASSERT(s != ZOR_NULL);
        zor_reg_discard_snapshot(s->ds);
        s->rethrow();
    }
    void rollback()
    {
        detail::store_state *s = std::exchange(s_, nullptr);
        ZOR_ASSERT(s != ZOR_NULL);
        zor_reg_restore_snapshot(s->ds);
        s->rethrow();
    }
};

/* ---- output ---------------------------------------------------------------------------- */

/* An output buffer; values are appended without format strings. */
class buffer
{
    zor_buffer b_;

  public:
    buffer() : b_() {}
    buffer(buffer &&o) noexcept : b_(o.b_)
    {
        o.b_ = zor_buffer();
    }
    buffer &operator=(buffer &&o) noexcept
    {
        std::swap(b_, o.b_);
        return *this;
    }
    ~buffer()
    {
        zor_buffer_free(&b_);
    }
    zor_buffer *get()
    {
        return &b_;
    }
    uint64_t size() const
    {
        return b_.size;
    }
    bool empty() const
    {
        return b_.size == 0;
    }
    buffer &write(std::string_view text)
    {
        zor_write(&b_, text.data(), text.size());
        return *this;
    }
    buffer &operator<<(std::string_view text)
    {
        return write(text);
    }
    buffer &operator<<(const char *text)
    {
        return write(text);
    }
    buffer &operator<<(char c)
    {
        zor_putc(&b_, static_cast<unsigned char>(c));
        return *this;
    }
    /* Integers in decimal; floating-point numbers in their shortest exact form. */
    template <class N,
              class = std::enable_if_t<std::is_arithmetic_v<N> && !std::is_same_v<N, char>>>
    buffer &operator<<(N n)
    {
        if constexpr (std::is_same_v<N, bool>) {
            return write(n ? "true" : "false");
        } else {
            char tmp[64];
            auto res = std::to_chars(tmp, tmp + sizeof(tmp), n);
            return write(std::string_view(tmp, static_cast<size_t>(res.ptr - tmp)));
        }
    }
    /* The unconsumed text (the buffer is unchanged). */
    std::string str()
    {
        zor_str s = zor_buffer_flatten(&b_);
        std::string out(s.ptr, static_cast<size_t>(s.len));
        free(const_cast<char *>(s.ptr));
        return out;
    }
    void consume(uint64_t count)
    {
        zor_buffer_consume(&b_, count);
    }
    /* Writes everything to `fd`; true when all of it went out. */
    bool output(int fd)
    {
        zor_buffer_output(&b_, fd);
        return b_.size == 0;
    }
    void clear()
    {
        zor_buffer_free(&b_);
    }
};

/* Text written into JSON unquoted and as given (a number already formatted, ...). */
struct literal {
    std::string_view text;
};

/*
 * A JSON writer over a buffer. Values: strings (escaped, quoted), integers,
 * floating-point numbers (null when not finite), bool, nullptr, literal.
 * A char is a one-character string. Keys are written as given. As the underlying writer, a value is
 * cut to its first 255 bytes (a string's cut never splits an escape).
 */
class json
{
    zor_json_ctx c_;

    static size_t escape(std::string_view in, char *out, size_t room)
    {
        static const char hex[] = "0123456789abcdef";
        size_t n = 0;
        for (char ch : in) {
            const auto c = static_cast<unsigned char>(ch);
            char e[6] = {'\\', 0, 0, 0, 0, 0};
            size_t len = 2;
            switch (c) {
            case '"':
            case '\\':
                e[1] = static_cast<char>(c);
                break;
            case '\n':
                e[1] = 'n';
                break;
            case '\t':
                e[1] = 't';
                break;
            case '\r':
                e[1] = 'r';
                break;
            default:
                if (c >= 0x20) {
                    e[0] = static_cast<char>(c);
                    len = 1;
                } else {
                    e[1] = 'u';
                    e[2] = '0';
                    e[3] = '0';
                    e[4] = hex[c >> 4];
                    e[5] = hex[c & 15];
                    len = 6;
                }
            }
            if (n + len > room)
                break;
            memcpy(out + n, e, len);
            n += len;
        }
        return n;
    }
    /* One value, as an array element (key null) or as the member `key`. */
    void put(const char *key, bool quoted, std::string_view v)
    {
        const int len = static_cast<int>(v.size() < 256 ? v.size() : 256);
        const char *p = v.data() != nullptr ? v.data() : "";
        if (key == nullptr) {
            if (quoted)
                zor_json_arr_val_quotes(&c_, "%.*s", len, p);
            else
                zor_json_arr_val_noquotes(&c_, "%.*s", len, p);
        } else {
            if (quoted)
                zor_json_pair_quotes(&c_, key, "%.*s", len, p);
            else
                zor_json_pair_noquotes(&c_, key, "%.*s", len, p);
        }
    }
    template <class V> void emit(const char *key, const V &v)
    {
        if constexpr (std::is_same_v<V, char>) {
            emit(key, std::string_view(&v, 1));
        } else if constexpr (std::is_same_v<V, bool>) {
            put(key, false, v ? "true" : "false");
        } else if constexpr (std::is_same_v<V, std::nullptr_t>) {
            put(key, false, "null");
        } else if constexpr (std::is_same_v<V, literal>) {
            put(key, false, v.text);
        } else if constexpr (std::is_arithmetic_v<V>) {
            char tmp[64];
            if constexpr (std::is_floating_point_v<V>) {
                if (!std::isfinite(v))
                    return put(key, false, "null");
            }
            auto res = std::to_chars(tmp, tmp + sizeof(tmp), v);
            put(key, false, std::string_view(tmp, static_cast<size_t>(res.ptr - tmp)));
        } else {
            char tmp[256];
            put(key, true, std::string_view(tmp, escape(std::string_view(v), tmp, 255)));
        }
    }

  public:
    explicit json(buffer &b, uint32_t indent_size = 2, uint32_t indent = 0)
        : json(b.get(), indent_size, indent)
    {
    }
    explicit json(zor_buffer *b, uint32_t indent_size = 2, uint32_t indent = 0)
    {
        zor_json_init(&c_, b, indent_size, indent);
    }
    zor_json_ctx *get()
    {
        return &c_;
    }
    json &object()
    {
        zor_json_start_obj(&c_);
        return *this;
    }
    json &object(const char *key)
    {
        zor_json_start_obj_pair(&c_, key);
        return *this;
    }
    json &end_object()
    {
        zor_json_end_obj(&c_);
        return *this;
    }
    /* An array; one value per line, or all on one line. */
    json &array(bool one_per_line = true)
    {
        zor_json_start_arr(&c_, one_per_line ? 1 : 0);
        return *this;
    }
    json &array(const char *key, bool one_per_line = true)
    {
        zor_json_start_arr_pair(&c_, key, one_per_line ? 1 : 0);
        return *this;
    }
    json &end_array()
    {
        zor_json_end_arr(&c_);
        return *this;
    }
    /* An array element. */
    template <class V> json &value(const V &v)
    {
        emit(nullptr, v);
        return *this;
    }
    /* An object member. */
    template <class V> json &pair(const char *key, const V &v)
    {
        emit(key, v);
        return *this;
    }
};

/* ---- JSON tokenizer ------------------------------------------------------------------- */

/* One token: its kind, its text in the input, its place in the tree. */
class token
{
    const jsmn_token *t_;

  public:
    explicit token(const jsmn_token *t) : t_(t) {}
    const jsmn_token *get() const
    {
        return t_;
    }
    jsmn_tok_type type() const
    {
        return t_->type;
    }
    bool is_object() const
    {
        return t_->type == JSMN_TOK_OBJECT;
    }
    bool is_array() const
    {
        return t_->type == JSMN_TOK_ARRAY;
    }
    bool is_string() const
    {
        return t_->type == JSMN_TOK_STRING;
    }
    bool is_primitive() const
    {
        return t_->type == JSMN_TOK_PRIMITIVE;
    }
    /* A string's bytes between the quotes (escapes not decoded), or the whole token. */
    std::string_view text() const
    {
        return to_view(t_->str);
    }
    /* The text with \" \\ and \/ decoded (other escapes stay as written). */
    std::string unescaped() const
    {
        std::string out(static_cast<size_t>(t_->str.len), '\0');
        zor_str s = jsmn_str_unescape(t_->str, out.data(), out.size());
        out.resize(static_cast<size_t>(s.len));
        return out;
    }
    int32_t size() const
    {
        return t_->size;
    }
    int32_t parent() const
    {
        return t_->parent;
    }
    int32_t skip() const
    {
        return t_->skip;
    }
    int32_t start() const
    {
        return t_->start;
    }
};

/* Tokens of one parse, by index or by a range-for. */
class tokens
{
    const jsmn_token *first_;
    uint32_t count_;

  public:
    class iterator
    {
        const jsmn_token *p_;

      public:
        explicit iterator(const jsmn_token *p) : p_(p) {}
        token operator*() const
        {
            return token(p_);
        }
        iterator &operator++()
        {
            ++p_;
            return *this;
        }
        bool operator!=(const iterator &o) const
        {
            return p_ != o.p_;
        }
        bool operator==(const iterator &o) const
        {
            return p_ == o.p_;
        }
    };
    tokens(const jsmn_token *first, uint32_t count) : first_(first), count_(count) {}
    uint32_t size() const
    {
        return count_;
    }
    bool empty() const
    {
        return count_ == 0;
    }
    token operator[](uint32_t i) const
    {
        return token(first_ + i);
    }
    iterator begin() const
    {
        return iterator(first_);
    }
    iterator end() const
    {
        return iterator(first_ + count_);
    }
};

/* A tokenizer owning its (growing) token array. */
class tokenizer
{
    jsmn_tokenizer t_;
    int32_t last_ = 0;

  public:
    explicit tokenizer(uint32_t capacity = 64)
    {
        jsmn_init(&t_, nullptr, capacity);
    }
    tokenizer(tokenizer &&o) noexcept : t_(o.t_), last_(o.last_)
    {
        o.t_.tokens = o.t_.initial_tokens = nullptr;
    }
    tokenizer &operator=(tokenizer &&o) noexcept
    {
        std::swap(t_, o.t_);
        std::swap(last_, o.last_);
        return *this;
    }
    ~tokenizer()
    {
        jsmn_destroy(&t_);
    }
    jsmn_tokenizer *get()
    {
        return &t_;
    }
    /* The token count, or JSMN_ERR_INVALID / JSMN_ERR_PARTIAL. */
    int32_t parse(std::string_view text)
    {
        last_ = jsmn_parse(&t_, text.data() != nullptr ? text.data() : "", text.size());
        return last_;
    }
    /* The last parse's tokens; after an error, those taken before it. */
    zor::tokens tokens() const
    {
        return zor::tokens(t_.tokens, last_ >= 0 ? static_cast<uint32_t>(last_) : t_.next_token);
    }
    /* After an error: the offset of the failing token or bracket. */
    uint32_t error_offset() const
    {
        return t_.pos;
    }
};

} // namespace zor

#endif /* ZOR_HPP */
