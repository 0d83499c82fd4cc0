/* Registry field and flag values: setters, getters, defaults, queueing, snapshot marks. */
#include "zor_test.h"
#include "reg_test_types.h"
#include "zor_reg_internal.h"

#include <string>
#include <vector>

namespace
{

struct seen_change {
    int name;
    uint32_t field;
    int is_set;
    const void *value;
    const void *explicit_before; /* zor_reg_field_get_explicit inside the notifier */
    int old_bytes;
};
std::vector<seen_change> changes;

void note_change(void *rec, const zor_reg_field_info *field, int is_set, const void *value, void *)
{
    reg_test_rec *r = static_cast<reg_test_rec *>(rec);
    zor_reg_field_info *f = const_cast<zor_reg_field_info *>(field);
    int old_bytes = field->type->size
                        ? *reinterpret_cast<int *>(reinterpret_cast<char *>(r) + field->offset)
                        : -1;
    changes.push_back(
        {r->name, field->id, is_set, value, zor_reg_field_get_explicit(rec, f), old_bytes});
}

int ignore_update(zor_reg_cb_info *, zor_iter *, void *)
{
    return 1;
}

/* Entries queued for `reg` and not yet processed, by name. */
std::vector<int> queued_for(const zor_reg_rec_update *reg)
{
    std::vector<int> names;
    if (!reg->in_partition)
        return names;
    uint8_t a = reg->ds_rec->ds->levels[reg->level].active;
    for (zor_partition_elem *e = reg->buckets[a].first; e != nullptr; e = e->next)
        names.push_back(reg_test_name(static_cast<zor_reg_entry *>(e->entry)));
    return names;
}

int queued_bit(reg_test_rec *rec, const zor_reg_rec_update *reg)
{
    return zor_reg_bit_get(zor_reg_entry_queued_bits(reg_test_entry(rec), reg->ds_rec->rec_info),
                           reg->id);
}

/* A flag type whose values are transient: its write is counted and stores nothing. */
int flag_writes;
void flag_write(void *, const void *src, const zor_datatype_info *)
{
    EXPECT_EQ(src, nullptr);
    flag_writes++;
}

/* What taking a snapshot sets up, and its cleanup for the tests that fake one. */
void fake_snapshot_take(zor_reg_ds *ds)
{
    ds->snapshot_active = 1;
    zor_partition_create(&ds->snapshot_partition, 128);
    zor_partition_bucket_add(&ds->snapshot_partition, &ds->snapshot_created_bucket, nullptr);
    zor_partition_bucket_add(&ds->snapshot_partition, &ds->snapshot_updated_bucket, nullptr);
}

} // namespace

TEST(RegValues, FieldSetCallsNotifiersStoresAndQueuesOnlyOnChange)
{
    changes.clear();
    reg_test_schema s;
    s.open();
    zor_register_field_update(s.ds, s.a, note_change, nullptr);
    zor_register_field_update(s.ds, s.a, note_change, nullptr);
    zor_reg_rec_update *ra =
        zor_register_rec_update_v(s.ds, s.kind, 0, ignore_update, nullptr, 1, s.a);
    zor_reg_rec_update *rc =
        zor_register_rec_update_v(s.ds, s.kind, ZOR_REG_LEVEL_1, ignore_update, nullptr, 1, s.c);
    reg_test_rec *r = s.make(1);
    reg_test_rec *q = s.make(2);
    reg_test_ops = {};

    int five = 5, also_five = 5, six = 6;
    zor_reg_field_set(r, s.a, &five);
    ASSERT_EQ(changes.size(), 2u); /* both notifiers, before the record changed */
    EXPECT_EQ(changes[0].is_set, 1);
    EXPECT_EQ(changes[0].value, &five);
    EXPECT_EQ(changes[0].explicit_before, nullptr);
    EXPECT_EQ(changes[0].old_bytes, 0);
    EXPECT_EQ(reg_test_ops.writes, 1);
    EXPECT_EQ(zor_reg_field_get(r, s.a), &r->a);
    EXPECT_EQ(r->a, 5);
    EXPECT_EQ(queued_for(ra), (std::vector<int>{1}));
    EXPECT_EQ(queued_bit(r, ra), 1);

    /* Equal by cmp_eq, or unset of an unset field: nothing at all. */
    changes.clear();
    zor_reg_field_set(r, s.a, &also_five);
    zor_reg_field_set(q, s.a, nullptr);
    zor_reg_field_set(r, s.b, nullptr);
    EXPECT_TRUE(changes.empty());
    EXPECT_EQ(reg_test_ops.writes, 1);
    EXPECT_EQ(queued_bit(q, ra), 0);

    /* A second change of the record is not queued twice; another record is. */
    zor_reg_field_set(r, s.a, &six);
    zor_reg_field_set(q, s.a, &six);
    EXPECT_EQ(changes.size(), 4u);
    EXPECT_EQ(changes[0].old_bytes, 5);
    EXPECT_EQ(changes[0].explicit_before, &r->a);
    EXPECT_EQ(queued_for(ra), (std::vector<int>{1, 2}));
    EXPECT_TRUE(queued_for(rc).empty());

    /* Unset without RESET_ON_UNSET: the bytes stay, the field reads unset. */
    changes.clear();
    zor_reg_field_set(r, s.a, nullptr);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].is_set, 0);
    EXPECT_EQ(changes[0].value, nullptr);
    EXPECT_EQ(changes[0].explicit_before, &r->a);
    EXPECT_EQ(r->a, 6);
    EXPECT_EQ(zor_reg_field_get(r, s.a), nullptr);
    EXPECT_EQ(zor_reg_field_get_explicit(r, s.a), nullptr);
    EXPECT_EQ(queued_for(ra), (std::vector<int>{1, 2}));

    /* RESET_ON_UNSET: unsetting writes NULL through the type. */
    zor_reg_field_set(r, s.c, &five);
    int null_writes = reg_test_ops.null_writes;
    zor_reg_field_set(r, s.c, nullptr);
    EXPECT_EQ(reg_test_ops.null_writes, null_writes + 1);
    EXPECT_EQ(r->c, 0);
    EXPECT_EQ(queued_for(rc), (std::vector<int>{1}));

    /* Without a snapshot the snapshot bits follow the set bits. */
    zor_reg_field_set(r, s.b, &five);
    zor_reg_entry *e = reg_test_entry(r);
    EXPECT_EQ(memcmp(zor_reg_entry_set_bits(e, s.kind), zor_reg_entry_snapshot_bits(e, s.kind), 1),
              0);
    EXPECT_EQ(*zor_reg_entry_set_bits(e, s.kind), 0x2);

    /* A type without cmp_eq: a set of a set field counts as no change. */
    zor_datatype_info no_cmp = reg_test_plain;
    no_cmp.cmp_eq = nullptr;
    zor_datatype_info no_write = reg_test_plain;
    no_write.write = nullptr;
    reg_test_schema t;
    zor_reg_field_info *nc = zor_reg_db_rec_add_field(t.kind, offsetof(reg_test_rec, a), &no_cmp);
    zor_reg_field_info *nw = zor_reg_db_rec_add_field(t.kind, offsetof(reg_test_rec, b), &no_write);
    zor_reg_db_rec_set_offsets(t.kind, reg_test_rec_offset, sizeof(reg_test_rec));
    t.open();
    reg_test_rec *u = t.make(3);
    zor_reg_field_set(u, nc, &five);
    zor_reg_field_set(u, nc, &six);
    EXPECT_EQ(u->a, 5);
    zor_reg_field_set(u, nw, &six); /* set, but nothing stored */
    EXPECT_EQ(zor_reg_field_get(u, nw), &u->b);
    EXPECT_EQ(u->b, 0);
}

TEST(RegValues, DefaultsFollowControlFlags)
{
    reg_test_schema s;
    int seven = 7, nine = 9, on = 1;
    zor_reg_db_field_set_default(s.a, s.f1, &seven); /* a defaults to 7 when f1 is set */
    zor_reg_db_field_set_default(s.f1, s.f2, &on);   /* f1 defaults on when f2 is set */
    zor_reg_db_field_set_default(s.b, nullptr, &nine);
    s.open();
    zor_reg_rec_update *chain =
        zor_register_rec_update_v(s.ds, s.kind, 0, ignore_update, nullptr, 1, s.a);
    zor_reg_rec_update *plain = zor_register_rec_update_v(s.ds, s.kind, ZOR_REG_NO_CTRL_FLAGS,
                                                          ignore_update, nullptr, 1, s.a);
    reg_test_rec *r = s.make(1);

    EXPECT_EQ(zor_reg_field_get(r, s.b), &nine);
    EXPECT_EQ(zor_reg_field_get_explicit(r, s.b), nullptr);
    EXPECT_EQ(zor_reg_field_get(r, s.a), nullptr);
    EXPECT_EQ(zor_reg_flag_get(r, s.f1), 0);
    zor_reg_flag_set(r, s.f2, 1);
    /* f1 now reads on by default, but a's default needs f1 itself to be set. */
    EXPECT_EQ(zor_reg_flag_get(r, s.f1), 1);
    EXPECT_EQ(zor_reg_flag_get_explicit(r, s.f1), 0);
    EXPECT_EQ(zor_reg_field_get(r, s.a), nullptr);
    zor_reg_flag_set(r, s.f1, 1);
    EXPECT_EQ(zor_reg_field_get(r, s.a), &seven);
    EXPECT_EQ(zor_reg_field_get_explicit(r, s.a), nullptr);
    zor_reg_field_set(r, s.a, &nine);
    EXPECT_EQ(zor_reg_field_get(r, s.a), &r->a);

    /* The chain registration watches a, f1 and f2 and was queued by the flags. */
    EXPECT_EQ(chain->field_bits[0], 0x1 | 0x8 | 0x10);
    EXPECT_EQ(plain->field_bits[0], 0x1);
    EXPECT_EQ(queued_for(chain), (std::vector<int>{1}));
    EXPECT_EQ(queued_for(plain), (std::vector<int>{1}));
    /* Field buckets: a has both registrations once; adding a again walks the chain again. */
    zor_reg_rec_update_field_add(chain, s.a);
    EXPECT_EQ(zor_reg_ds_field(s.ds, s.a)->bucket.count, 2u);
    EXPECT_EQ(zor_reg_ds_field(s.ds, s.f1)->bucket.count, 1u);
    zor_reg_rec_update_field_add(plain, s.f1); /* now follows nothing: f2 stays unwatched */
    EXPECT_EQ(plain->field_bits[0], 0x1 | 0x8);
    EXPECT_EQ(zor_reg_ds_field(s.ds, s.f2)->bucket.count, 1u);
    EXPECT_EQ(plain->first_byte, 0u);
    EXPECT_EQ(plain->last_byte, 0u);
    /* Field buckets enter the field partition in the order fields are first watched. */
    std::vector<uint32_t> order;
    for (zor_partition_bucket *b = zor_reg_ds_rec(s.ds, s.kind)->field_partition.buckets; b;
         b = b->next)
        order.push_back(static_cast<struct zor_reg_ds_field *>(b->data)->field_info->id);
    EXPECT_EQ(order, (std::vector<uint32_t>{4, 3, 0}));
}

TEST(RegValues, FlagsAndTrigger)
{
    changes.clear();
    reg_test_schema s;
    zor_datatype_info transient_flag = reg_test_flag;
    transient_flag.write = flag_write;
    transient_flag.properties |= ZOR_DATATYPE_PROP_RESET_ON_UNSET;
    zor_reg_field_info *tf =
        zor_reg_db_rec_add_field(s.kind, offsetof(reg_test_rec, flags) + 3, &transient_flag);
    zor_reg_db_rec_set_offsets(s.kind, reg_test_rec_offset, sizeof(reg_test_rec));
    s.open();
    zor_register_field_update(s.ds, s.f1, note_change, nullptr);
    zor_reg_rec_update *reg =
        zor_register_rec_update_v(s.ds, s.kind, 0, ignore_update, nullptr, 2, s.f1, tf);
    reg_test_rec *r = s.make(1);

    zor_reg_flag_set(r, s.f1, 0); /* already clear */
    EXPECT_TRUE(changes.empty());
    zor_reg_flag_set(r, s.f1, 1);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].is_set, 1);
    EXPECT_EQ(changes[0].value, &r->flags[0]);
    EXPECT_EQ(zor_reg_flag_get_explicit(r, s.f1), 1);
    zor_reg_flag_set(r, s.f1, 1);
    EXPECT_EQ(changes.size(), 1u);
    zor_reg_flag_set(r, s.f1, 0);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[1].is_set, 0);
    EXPECT_EQ(changes[1].value, nullptr);
    EXPECT_EQ(queued_for(reg), (std::vector<int>{1}));

    flag_writes = 0;
    zor_reg_flag_set(r, tf, 1);
    zor_reg_flag_set(r, tf, 0);
    EXPECT_EQ(flag_writes, 2);

    /* Trigger queues without changing anything. */
    reg_test_rec *q = s.make(2);
    uint8_t bits_before = *zor_reg_entry_set_bits(reg_test_entry(q), s.kind);
    zor_reg_flag_trigger(q, s.f1);
    EXPECT_EQ(*zor_reg_entry_set_bits(reg_test_entry(q), s.kind), bits_before);
    EXPECT_EQ(changes.size(), 2u);
    EXPECT_EQ(queued_for(reg), (std::vector<int>{1, 2}));

    int v = 1;
    ZOR_EXPECT_ASSERT(zor_reg_flag_set(r, s.a, 1), "zor_reg_flag_set", "field->type->size == 0");
    reg_test_entry(r)->changes_prohibited = 1;
    /* b is watched by nobody: the change is still refused at queueing. */
    ZOR_EXPECT_ASSERT(zor_reg_field_set(r, s.b, &v), "zor_reg_entry_changed",
                      "!hdr->changes_prohibited");
    reg_test_entry(r)->changes_prohibited = 0;
}

TEST(RegValues, DeletePendingRequeuesWatchedFieldsOnce)
{
    reg_test_schema s(true);
    int nine = 9, v = 3;
    zor_reg_db_field_set_default(s.b, nullptr, &nine);
    s.open();
    zor_register_field_update(s.ds, s.del, zor_reg_rec_delete_pending, nullptr);
    zor_reg_rec_update *ra =
        zor_register_rec_update_v(s.ds, s.kind, 0, ignore_update, nullptr, 1, s.a);
    zor_reg_rec_update *rb =
        zor_register_rec_update_v(s.ds, s.kind, 0, ignore_update, nullptr, 1, s.b);
    zor_reg_rec_update *rc =
        zor_register_rec_update_v(s.ds, s.kind, 0, ignore_update, nullptr, 1, s.c);
    zor_reg_rec_update *rd =
        zor_register_rec_update_v(s.ds, s.kind, ZOR_REG_LEVEL_2, ignore_update, nullptr, 1, s.del);
    reg_test_rec *r = s.make(1);
    zor_reg_field_set(r, s.a, &v);
    zor_reg_process(s.ds); /* nothing enabled: all dropped */
    EXPECT_TRUE(queued_for(ra).empty());

    zor_reg_flag_set(r, s.del, 1);
    EXPECT_EQ(queued_for(ra), (std::vector<int>{1})); /* a is set */
    EXPECT_EQ(queued_for(rb), (std::vector<int>{1})); /* b defaults */
    EXPECT_TRUE(queued_for(rc).empty());              /* c has no value */
    EXPECT_EQ(queued_for(rd), (std::vector<int>{1}));
    EXPECT_EQ(zor_reg_info_is_record_deleting(reg_test_entry(r)), 1);

    /* From now on changes of the record queue nothing. */
    zor_reg_field_set(r, s.c, &v);
    EXPECT_TRUE(queued_for(rc).empty());
    EXPECT_EQ(r->c, 3);

    ZOR_EXPECT_ASSERT(zor_reg_flag_set(r, s.del, 0), "zor_reg_rec_delete_pending", "flag");
    ZOR_EXPECT_ASSERT(zor_reg_rec_delete_pending(r, s.del, 1, &r->flags[2], nullptr),
                      "zor_reg_rec_delete_pending", "!zor_reg_entry_delete_pending(entry)");
}

TEST(RegValues, SnapshotMarksAndLazyBackups)
{
    reg_test_schema s;
    s.open();
    reg_test_rec *r = s.make(1);
    int five = 5, six = 6, seven = 7;
    zor_reg_field_set(r, s.a, &five);
    zor_reg_field_set(r, s.b, &five);
    zor_reg_field_set(r, s.c, &five);
    zor_reg_entry *e = reg_test_entry(r);
    uint8_t at_take = *zor_reg_entry_set_bits(e, s.kind);
    fake_snapshot_take(s.ds);

    zor_reg_field_set(r, s.a, &six);
    zor_reg_field_set(r, s.a, &seven); /* the backup keeps the first old value */
    EXPECT_EQ(e->snapshot_updated, 1u);
    EXPECT_EQ(s.ds->snapshot_updated_bucket.count, 1u);
    ASSERT_NE(e->backup, nullptr);
    const char *backup = static_cast<const char *>(e->backup);
    const uint8_t *backup_bits =
        reinterpret_cast<const uint8_t *>(backup + s.kind->backup_bitfield_offset);
    EXPECT_EQ(*reinterpret_cast<const int *>(backup + s.a->offset), 5);
    EXPECT_EQ(r->a, 7);
    EXPECT_EQ(backup_bits[0], 0x1);

    zor_reg_field_set(r, s.c, &six);    /* transient: never backed up */
    zor_reg_field_set(r, s.b, nullptr); /* an unset needs no backup */
    zor_reg_flag_set(r, s.f1, 1);       /* unset at take: nothing to back up */
    zor_reg_field_set(r, s.b, &six);
    EXPECT_EQ(backup_bits[0], 0x1 | 0x2);
    EXPECT_EQ(*reinterpret_cast<const int *>(backup + s.b->offset), 5);
    EXPECT_EQ(*zor_reg_entry_snapshot_bits(e, s.kind), at_take);
    EXPECT_EQ(*zor_reg_entry_set_bits(e, s.kind), at_take | 0x8);
    EXPECT_EQ(s.ds->snapshot_updated_bucket.count, 1u);

    /* A record created during the snapshot is neither marked updated nor backed up. */
    reg_test_rec *fresh = s.make(2);
    zor_reg_field_set(fresh, s.a, &five);
    zor_reg_field_set(fresh, s.a, &six);
    EXPECT_EQ(reg_test_entry(fresh)->snapshot_updated, 0u);
    EXPECT_EQ(reg_test_entry(fresh)->backup, nullptr);

    /* Release the backup as discarding does. */
    for (uint32_t i = 0; i < s.kind->clear_on_destroy_count; i++) {
        zor_reg_field_info *f = s.kind->clear_on_destroy[i];
        f->type->free(static_cast<char *>(e->backup) + f->offset, f->type, f);
    }
    free(e->backup);
    e->backup = nullptr;
    zor_partition_destroy(&s.ds->snapshot_partition);
    s.ds->snapshot_active = 0;
}
