/*
 * generate.c - zorcheck's scale mode: a synthetic configuration built
 * through the same data store and rules as change files, timed.
 *
 * Interface i is "eth<i>" with address 10.0.0.0 + 4i + 1/30 and a route to
 * 64.0.0.0 + 16i/28 through 10.0.0.0 + 4i + 2 on that interface. Accepted
 * transactions change the MTU of 100 interfaces each; rejected ones set 100
 * MTUs out of range (fewer with fewer interfaces) and delete an interface (its address and route
 * lose their interface), and are rolled back.
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>

#include "generate.h"
#include "zorcheck.h"

#define CHANGES_PER_TXN 100

/* Internal errors end the run at once: the data store is mid-transaction. */
static int fail(const char *what)
{
    fprintf(stderr, "zorcheck: internal error: %s\n", what);
    exit(EXIT_INTERNAL);
}

static double now(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static zor_reg_field_info *field(enum kind_id kind, uint32_t index)
{
    return g_app.kinds[kind].fields[index].field;
}

/* Interns the text, stores it and drops the caller's own reference again. */
static void set_name(obj *o, zor_reg_field_info *f, const char *text)
{
    zor_string_id id = zor_datatype_string_ref_get(zor_str_init(text));
    zor_reg_field_set(o, f, &id);
    zor_datatype_free_string(&id, f->type, NULL);
}

static void set_u32(obj *o, zor_reg_field_info *f, uint32_t v)
{
    zor_reg_field_set(o, f, &v);
}

static void set_u8(obj *o, zor_reg_field_info *f, uint8_t v)
{
    zor_reg_field_set(o, f, &v);
}

static void build(uint64_t n, iface_rec **ifaces)
{
    char name[32];
    for (uint64_t i = 0; i < n; i++) {
        snprintf(name, sizeof(name), "eth%llu", (unsigned long long)i);
        obj *o = record_new(KIND_INTERFACE);
        set_name(o, field(KIND_INTERFACE, 0), name);
        index_insert(o);
        ifaces[i] = (iface_rec *)o;

        obj *a = record_new(KIND_ADDRESS);
        set_name(a, field(KIND_ADDRESS, 0), name);
        set_u32(a, field(KIND_ADDRESS, 1), 0x0A000000u + 4 * (uint32_t)i + 1);
        set_u8(a, field(KIND_ADDRESS, 2), 30);
        index_insert(a);

        obj *r = record_new(KIND_ROUTE);
        set_u32(r, field(KIND_ROUTE, 0), 0x40000000u + 16 * (uint32_t)i);
        set_u8(r, field(KIND_ROUTE, 1), 28);
        set_u32(r, field(KIND_ROUTE, 2), 0x0A000000u + 4 * (uint32_t)i + 2);
        set_name(r, field(KIND_ROUTE, 3), name);
        index_insert(r);
    }
}

static void rate(const char *what, uint64_t records, const char *unit, double seconds)
{
    printf("  %-9s %9llu %-32s %7.3f s  %10.0f records/s\n", what, (unsigned long long)records,
           unit, seconds, seconds > 0 ? (double)records / seconds : 0.0);
}

int generate_run(uint64_t n, uint64_t transactions)
{
    zor_reg_ds *ds = g_app.ds;
    iface_rec **ifaces = util_calloc(n * sizeof(iface_rec *));
    zor_reg_field_info *mtu = field(KIND_INTERFACE, 1);
    uint64_t changes = n < CHANGES_PER_TXN ? n : CHANGES_PER_TXN;
    printf("zorcheck --generate %llu: %llu interfaces, addresses and routes\n",
           (unsigned long long)n, (unsigned long long)n);

    double t0 = now();
    zor_reg_take_snapshot(ds);
    build(n, ifaces);
    zor_reg_process(ds);
    if (g_app.violated.count != 0)
        return fail("the generated configuration breaks a rule");
    zor_reg_discard_snapshot(ds);
    rate("load", 3 * n, "records", now() - t0);

    char unit[64];
    uint64_t next = 0;
    t0 = now();
    for (uint64_t t = 0; t < transactions; t++) {
        zor_reg_take_snapshot(ds);
        for (uint64_t k = 0; k < changes; k++)
            set_u32(&ifaces[next++ % n]->o, mtu, t % 2 ? 1500 : 9000);
        zor_reg_process(ds);
        if (g_app.violated.count != 0)
            return fail("an accepted transaction broke a rule");
        zor_reg_discard_snapshot(ds);
    }
    snprintf(unit, sizeof(unit), "records in %llu accepted txns", (unsigned long long)transactions);
    rate("validate", transactions * changes, unit, now() - t0);

    t0 = now();
    for (uint64_t t = 0; t < transactions; t++) {
        zor_reg_take_snapshot(ds);
        for (uint64_t k = 0; k < changes; k++)
            set_u32(&ifaces[next++ % n]->o, mtu, 20000);
        zor_reg_flag_set(ifaces[t % n], g_app.kinds[KIND_INTERFACE].delete_flag, 1);
        zor_reg_process(ds);
        if (g_app.violated.count < changes)
            return fail("a transaction breaking rules was not caught");
        zor_reg_restore_snapshot(ds);
        rollback_check();
    }
    snprintf(unit, sizeof(unit), "records in %llu rejected txns", (unsigned long long)transactions);
    rate("rollback", transactions * (changes + 1), unit, now() - t0);

    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    printf("  peak memory %ld MiB\n", usage.ru_maxrss / 1024);
    free(ifaces);
    return EXIT_ACCEPTED;
}
