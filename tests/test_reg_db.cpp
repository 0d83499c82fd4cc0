/* Registry schema, data stores and the record lifecycle. */
#include "zor_test.h"
#include "reg_test_types.h"
#include "zor_reg_internal.h"

#include <string>
#include <vector>

namespace
{

std::vector<std::string> events;

void note_created(void *rec, void *ctx)
{
    /* The new record is already among the kind's entries. */
    zor_reg_ds *ds = static_cast<reg_test_schema *>(ctx)->ds;
    zor_reg_rec_info *kind = static_cast<reg_test_schema *>(ctx)->kind;
    events.push_back("create " + std::to_string(static_cast<reg_test_rec *>(rec)->name) + " of " +
                     std::to_string(zor_reg_ds_rec(ds, kind)->entries.count));
}

void note_deleted(void *rec, void *ctx)
{
    zor_reg_ds *ds = static_cast<reg_test_schema *>(ctx)->ds;
    zor_reg_rec_info *kind = static_cast<reg_test_schema *>(ctx)->kind;
    events.push_back("delete " + std::to_string(static_cast<reg_test_rec *>(rec)->name) + " of " +
                     std::to_string(zor_reg_ds_rec(ds, kind)->entries.count));
}

void note_unlink(zor_reg_ds *, zor_reg_entry *entry)
{
    events.push_back("unlink " + std::to_string(reg_test_name(entry)));
}

void note_free(zor_reg_ds *, zor_reg_entry *entry)
{
    events.push_back("free " + std::to_string(reg_test_name(entry)) + " after " +
                     std::to_string(reg_test_ops.frees) + " value frees");
}

int ignore_update(zor_reg_cb_info *, zor_iter *, void *)
{
    return 1;
}

} // namespace

TEST(RegSchema, LayoutIdsAndClearOnDestroy)
{
    zor_reg_db db;
    zor_reg_db_init(&db);
    zor_reg_rec_info *empty = zor_reg_db_rec_add(&db);
    zor_reg_rec_info *ten = zor_reg_db_rec_add(&db);
    EXPECT_EQ(empty->id, 0u);
    EXPECT_EQ(ten->id, 1u);
    EXPECT_EQ(ten->delete_pending, -1);
    EXPECT_EQ(db.recs.count, 2u);

    zor_reg_db_rec_set_offsets(empty, 64, 24);
    EXPECT_EQ(empty->bitfield_offset, 88u);
    EXPECT_EQ(empty->snapshot_bitfield_offset, 88u);
    EXPECT_EQ(empty->reg_bitfield_offset, 88u);
    EXPECT_EQ(empty->size, 88u);
    EXPECT_EQ(empty->backup_size, 24u);

    std::vector<zor_reg_field_info *> fields;
    for (int i = 0; i < 10; i++)
        fields.push_back(
            zor_reg_db_rec_add_field(ten, 4 * i, i % 2 ? &reg_test_flag : &reg_test_int));
    for (uint32_t i = 0; i < 10; i++) {
        EXPECT_EQ(fields[i]->id, i);
        EXPECT_EQ(fields[i]->rec_info, ten);
        EXPECT_EQ(fields[i]->offset, 4u * i);
    }
    EXPECT_EQ(ten->clear_on_destroy_count, 5u); /* the flags have no free */
    EXPECT_EQ(ten->clear_on_destroy, nullptr);
    zor_reg_db_rec_set_offsets(ten, 64, 24);
    EXPECT_EQ(ten->rec_offset, 64u);
    EXPECT_EQ(ten->bitfield_offset, 88u);
    EXPECT_EQ(ten->snapshot_bitfield_offset, 90u);
    EXPECT_EQ(ten->reg_bitfield_offset, 92u);
    EXPECT_EQ(ten->size, 92u);
    EXPECT_EQ(ten->backup_bitfield_offset, 24u);
    EXPECT_EQ(ten->backup_size, 26u);

    /* 8 fields need one byte per array, 9 need two. */
    zor_reg_rec_info *eight = zor_reg_db_rec_add(&db);
    for (int i = 0; i < 8; i++)
        zor_reg_db_rec_add_field(eight, 0, &reg_test_flag);
    zor_reg_db_rec_set_offsets(eight, 56, 8);
    EXPECT_EQ(eight->size, 56u + 8 + 2);
    zor_reg_field_info *ninth = zor_reg_db_rec_add_field(eight, 0, &reg_test_flag);
    EXPECT_EQ(ninth->id, 8u);
    zor_reg_db_rec_set_offsets(eight, 56, 8);
    EXPECT_EQ(eight->size, 56u + 8 + 4);

    /* Two stores: the first fills clear_on_destroy in field order, the second reuses it. */
    zor_reg_ds *ds1 = zor_reg_ds_init(&db, nullptr);
    zor_reg_field_info **filled = ten->clear_on_destroy;
    ASSERT_NE(filled, nullptr);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(filled[i], fields[2 * i]);
    EXPECT_EQ(empty->clear_on_destroy, nullptr);
    zor_reg_ds *ds2 = zor_reg_ds_init(&db, &db);
    EXPECT_EQ(ten->clear_on_destroy, filled);
    EXPECT_EQ(zor_reg_ds_ctx_get(ds2), &db);
    EXPECT_EQ(ds2->rec_count, 3u);
    EXPECT_EQ(zor_reg_ds_rec(ds2, ten)->field_count, 10u);
    EXPECT_EQ(zor_reg_ds_field(ds2, fields[3])->field_info, fields[3]);

    /* The block grows by one byte with the 1st and the 9th update registration. */
    uint64_t base = zor_reg_rec_size(ds1, ten);
    EXPECT_EQ(base, 92u);
    for (int i = 1; i <= 9; i++) {
        zor_register_rec_update(ds1, ten, 0, ignore_update, nullptr);
        EXPECT_EQ(zor_reg_rec_size(ds1, ten), base + (i + 7) / 8) << i;
    }
    EXPECT_EQ(zor_reg_rec_size(ds2, ten), base);

    struct zor_reg_ds_rec *ds_rec = zor_reg_ds_rec(ds1, empty);
    EXPECT_EQ(zor_reg_db_ds_rec_ctx_get(ds_rec), nullptr);
    zor_reg_db_ds_rec_ctx_set(ds_rec, &db);
    EXPECT_EQ(zor_reg_db_ds_rec_ctx_get(ds_rec), &db);
    zor_reg_ds_destroy(ds1);
    zor_reg_ds_destroy(ds2);
    zor_reg_db_destroy(&db);

    /* A schema with no kinds, and destroying an empty schema. */
    zor_reg_db none;
    zor_reg_db_init(&none);
    zor_reg_ds *ds = zor_reg_ds_init(&none, nullptr);
    EXPECT_EQ(ds->rec_count, 0u);
    zor_reg_process(ds);
    zor_reg_ds_destroy(ds);
    zor_reg_db_destroy(&none);
}

TEST(RegSchema, BrokenPreconditionsStop)
{
    reg_test_schema s;
    zor_datatype_info unresolved = reg_test_int;
    unresolved.properties = 0;
    ZOR_EXPECT_ASSERT(zor_reg_db_rec_add_field(s.kind, 0, &unresolved), "zor_reg_db_rec_add_field",
                      "(datatype_info->properties & 0x10) != 0");
    int one = 1;
    ZOR_EXPECT_ASSERT(zor_reg_db_field_set_default(s.a, nullptr, nullptr),
                      "zor_reg_db_field_set_default", "value != ((void *)0)");
    zor_reg_rec_info *other = zor_reg_db_rec_add(&s.db);
    zor_reg_field_info *foreign = zor_reg_db_rec_add_field(other, 0, &reg_test_flag);
    ZOR_EXPECT_ASSERT(zor_reg_db_field_set_default(s.a, foreign, &one),
                      "zor_reg_db_field_set_default",
                      "ctrl_flag == ((void *)0) || ctrl_flag->rec_info == field->rec_info");
    zor_reg_db_field_set_default(s.a, nullptr, &one);
    ZOR_EXPECT_ASSERT(zor_reg_db_field_set_default(s.a, nullptr, &one),
                      "zor_reg_db_field_set_default", "field->default_value == ((void *)0)");
    zor_reg_db_rec_set_deletion_info(s.kind, s.del, nullptr, nullptr);
    EXPECT_EQ(s.kind->delete_pending, 5);
    ZOR_EXPECT_ASSERT(zor_reg_db_rec_set_deletion_info(s.kind, s.del, nullptr, nullptr),
                      "zor_reg_db_rec_set_deletion_info", "rec->delete_pending == -1");
}

TEST(RegDataStore, AccessorsStopOnForeignKindsAndFields)
{
    reg_test_schema s;
    s.open();
    reg_test_schema t; /* another schema: same ids, other infos */
    zor_reg_rec_info *second = zor_reg_db_rec_add(&t.db);
    t.open();
    ZOR_EXPECT_ASSERT(zor_reg_rec_size(s.ds, second), "zor_reg_ds_rec",
                      "rec_info->id < ds->rec_count");
    ZOR_EXPECT_ASSERT(zor_reg_rec_size(s.ds, t.kind), "zor_reg_ds_rec",
                      "ds_rec->rec_info == rec_info");
    zor_reg_field_info *late = zor_reg_db_rec_add_field(s.kind, 0, &reg_test_flag);
    ZOR_EXPECT_ASSERT(zor_register_field_update(s.ds, late, nullptr, nullptr), "zor_reg_ds_field",
                      "field->id < ds_rec->field_count");
    /* A field of the right kind and id whose state belongs to another field info. */
    zor_reg_field_info impostor = *s.a;
    ZOR_EXPECT_ASSERT(zor_register_field_update(s.ds, &impostor, nullptr, nullptr),
                      "zor_reg_ds_field", "ds_field->field_info == field");

    reg_test_rec *rec = s.make(1);
    reg_test_rec *alien = t.make(2);
    int v = 3;
    ZOR_EXPECT_ASSERT(zor_reg_field_set(alien, s.a, &v), "zor_reg_rec_entry",
                      "hdr->ds_rec->rec_info == rec_info");
    ZOR_EXPECT_ASSERT(zor_reg_field_get(alien, s.a), "zor_reg_rec_entry",
                      "hdr->ds_rec->rec_info == rec_info");
    EXPECT_EQ(zor_reg_rec_entry(rec, s.kind), reg_test_entry(rec));
    EXPECT_EQ(zor_reg_rec(reg_test_entry(rec)), rec);
    EXPECT_EQ(zor_reg_rec(nullptr), nullptr);
    EXPECT_EQ(zor_reg_db_rec_info(reg_test_entry(rec)), s.kind);
    EXPECT_EQ(zor_reg_rec_snapshot_active(reg_test_entry(rec)), 0u);
}

TEST(RegDataStore, RecordLifecycleCallsInOrder)
{
    events.clear();
    reg_test_schema s;
    zor_reg_db_rec_set_deletion_info(s.kind, s.del, note_unlink, note_free);
    s.open();
    reg_test_rec *r1 = s.make(1);
    reg_test_rec *r2 = s.make(2);
    zor_register_rec_create(s.ds, s.kind, note_created, &s, 1); /* existing: 1, 2 */
    zor_register_rec_create(s.ds, s.kind, note_created, &s, 0);
    zor_register_rec_delete(s.ds, s.kind, note_deleted, &s);
    reg_test_rec *r3 = s.make(3); /* both create notifiers, after linking */
    EXPECT_EQ(events, (std::vector<std::string>{"create 1 of 2", "create 2 of 2", "create 3 of 3",
                                                "create 3 of 3"}));
    events.clear();

    int v = 5;
    zor_reg_field_set(r2, s.a, &v);
    zor_reg_field_set(r2, s.b, &v);
    EXPECT_EQ(s.kind->clear_on_destroy_count, 2u); /* a and c have free */
    reg_test_ops = {};
    zor_reg_rec_deleted(reg_test_entry(r2)); /* notifier first, then unlinked */
    EXPECT_EQ(reg_test_entry(r2)->link.next, nullptr);
    EXPECT_EQ(reg_test_entry(r2)->ds_rec, zor_reg_ds_rec(s.ds, s.kind));
    zor_reg_rec_unlink(reg_test_entry(r2));
    zor_reg_rec_free(reg_test_entry(r2));
    EXPECT_EQ(r2->a, 0); /* released by its type */
    EXPECT_EQ(r2->b, 5);
    EXPECT_EQ(events, (std::vector<std::string>{"delete 2 of 3", "unlink 2",
                                                "free 2 after 2 value frees"}));
    struct zor_reg_ds_rec *ds_rec = zor_reg_ds_rec(s.ds, s.kind);
    EXPECT_EQ(ds_rec->entries.first, reg_test_entry(r1));
    EXPECT_EQ(ds_rec->entries.last, reg_test_entry(r3));

    /* A backup keeps a record from being freed. */
    reg_test_entry(r3)->backup = &v;
    ZOR_EXPECT_ASSERT(zor_reg_rec_free(reg_test_entry(r3)), "zor_reg_rec_free",
                      "rec_hdr->backup == ((void *)0)");
    reg_test_entry(r3)->backup = nullptr;

    /* Destroying the store calls no record callback. */
    events.clear();
    zor_reg_ds_destroy(s.ds);
    s.ds = nullptr;
    EXPECT_TRUE(events.empty());
}

TEST(RegDataStore, CreatedDuringSnapshot)
{
    reg_test_schema s(true);
    s.open();
    reg_test_rec *old = s.make(1);
    /* What taking a snapshot sets up. */
    s.ds->snapshot_active = 1;
    zor_partition_create(&s.ds->snapshot_partition, 128);
    zor_partition_bucket_add(&s.ds->snapshot_partition, &s.ds->snapshot_created_bucket, nullptr);
    zor_partition_bucket_add(&s.ds->snapshot_partition, &s.ds->snapshot_updated_bucket, nullptr);

    reg_test_rec *fresh = s.make(2);
    zor_reg_entry *e = reg_test_entry(fresh);
    EXPECT_EQ(e->snapshot_created, 1u);
    EXPECT_EQ(s.ds->snapshot_created_bucket.count, 1u);
    EXPECT_EQ(reg_test_entry(old)->snapshot_created, 0u);
    ZOR_EXPECT_ASSERT(zor_reg_rec_created(s.ds, s.kind, e), "zor_reg_rec_created",
                      "!rec_hdr->snapshot_created && !rec_hdr->snapshot_updated");

    /* Deleted during the snapshot and reported created again: no values, same bucket. */
    int v = 4;
    zor_reg_field_set(fresh, s.a, &v);
    zor_reg_flag_set(fresh, s.f1, 1);
    zor_reg_rec_deleted(e);
    e->changes_prohibited = 1;
    e->snapshot_deleted = 1;
    EXPECT_EQ(zor_reg_field_get(fresh, s.a), nullptr); /* reads as absent */
    zor_reg_rec_created(s.ds, s.kind, e);
    EXPECT_EQ(e->snapshot_deleted, 0u);
    EXPECT_EQ(e->changes_prohibited, 0u);
    EXPECT_EQ(zor_reg_field_get_explicit(fresh, s.a), nullptr);
    EXPECT_EQ(zor_reg_flag_get(fresh, s.f1), 0);
    EXPECT_EQ(fresh->a, 4); /* the bytes stay */
    EXPECT_EQ(s.ds->snapshot_created_bucket.count, 1u);

    zor_reg_entry *o = reg_test_entry(old);
    zor_reg_rec_deleted(o);
    o->snapshot_deleted = 1; /* in no snapshot bucket */
    ZOR_EXPECT_ASSERT(zor_reg_rec_created(s.ds, s.kind, o), "zor_reg_rec_created",
                      "rec_hdr->snapshot_created || rec_hdr->snapshot_updated");
    reg_test_schema t(true);
    t.open();
    o->snapshot_updated = 1;
    o->ds_rec = zor_reg_ds_rec(t.ds, t.kind);
    ZOR_EXPECT_ASSERT(zor_reg_rec_created(s.ds, s.kind, o), "zor_reg_rec_created",
                      "rec_hdr->ds_rec == ds_rec");
    o->ds_rec = zor_reg_ds_rec(s.ds, s.kind);
    zor_partition_destroy(&s.ds->snapshot_partition);
    s.ds->snapshot_active = 0;
}
