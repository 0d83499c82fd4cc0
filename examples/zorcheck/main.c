/*
 * zorcheck - validates a network configuration held in JSON change files.
 *
 *     zorcheck [--state] FILE...
 *     zorcheck --generate N [--transactions T]
 *
 * Each FILE is one transaction, applied in order to the configuration the
 * earlier ones committed (start with a base file that creates
 * everything). A transaction is applied under a snapshot and processed;
 * if any rule fails or an operation does not fit, the snapshot is restored
 * and the transaction reported rejected, else it is committed. The report
 * (JSON, on standard output) lists every transaction with its violations;
 * --state adds the committed configuration at the end.
 *
 * A file that cannot be read, is not JSON, has the wrong shape or holds a
 * value its field's type rejects stops the run: its changes are rolled
 * back, the report ends with the error, which also goes to standard error
 * with the file, line and column.
 *
 * Exit status: 0 every transaction accepted; 1 one or more rejected;
 * 2 usage; 3 unreadable file; 4 not JSON; 5 wrong shape; 6 bad value.
 *
 * --generate builds a synthetic configuration of N interfaces, each with
 * an address and a route, runs T accepted and T rejected transactions,
 * and prints records per second for loading, validating and rolling back.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "report.h"
#include "zorcheck.h"
#include "generate.h"

static void usage(void)
{
    fprintf(stderr, "usage: zorcheck [--state] FILE...\n"
                    "       zorcheck --generate N [--transactions T]\n");
}

void zorcheck_init(void)
{
    schema_init();
    index_init();
    index_register();
    rules_register();
    /* One pass before any record: it enables the registrations, deletion included. */
    zor_reg_process(g_app.ds);
}

void zorcheck_destroy(void)
{
    index_destroy();
    schema_destroy();
    free(g_app.conflicts);
}

/* After a rollback the committed state holds again, and it had no violations. */
void rollback_check(void)
{
    if (g_app.violated.count != 0 || g_app.uncovered.count != 0) {
        fprintf(stderr, "zorcheck: internal error: violations remain after a rollback\n");
        exit(EXIT_INTERNAL);
    }
}

/* One change file as one transaction; returns its exit status. */
static int transaction_run(const char *path)
{
    char description[256], error[512];
    txn_stats stats = {0, 0, 0};
    g_app.conflict_count = 0;

    zor_reg_take_snapshot(g_app.ds);
    int rc = input_apply_file(path, description, sizeof(description), &stats, error, sizeof(error));
    if (rc != 0) {
        zor_reg_restore_snapshot(g_app.ds);
        rollback_check();
        fprintf(stderr, "zorcheck: %s\n", error);
        report_error(path, error);
        return rc;
    }
    zor_reg_process(g_app.ds);
    if (g_app.violated.count == 0 && g_app.conflict_count == 0) {
        report_accepted(path, description, &stats);
        zor_reg_discard_snapshot(g_app.ds);
        return EXIT_ACCEPTED;
    }
    report_rejected(path, description, &stats);
    zor_reg_restore_snapshot(g_app.ds);
    rollback_check();
    return EXIT_REJECTED;
}

static int run_files(int count, char **files, int with_state)
{
    int status = EXIT_ACCEPTED;
    report_begin();
    for (int i = 0; i < count; i++) {
        int rc = transaction_run(files[i]);
        report_flush();
        if (rc == EXIT_REJECTED) {
            status = EXIT_REJECTED;
        } else if (rc != EXIT_ACCEPTED) {
            status = rc;
            break;
        }
    }
    report_end(with_state);
    return status;
}

static int parse_count(const char *text, uint64_t max, uint64_t *out)
{
    char *end;
    unsigned long long v = strtoull(text, &end, 10);
    if (*text == '\0' || *end != '\0' || v == 0 || v > max)
        return 0;
    *out = v;
    return 1;
}

int main(int argc, char **argv)
{
    int with_state = 0;
    uint64_t generate = 0, transactions = 1000;
    int first = 1;
    for (; first < argc && strncmp(argv[first], "--", 2) == 0; first++) {
        const char *opt = argv[first];
        if (strcmp(opt, "--state") == 0) {
            with_state = 1;
        } else if (strcmp(opt, "--generate") == 0 && first + 1 < argc &&
                   parse_count(argv[first + 1], 1u << 22, &generate)) {
            first++;
        } else if (strcmp(opt, "--transactions") == 0 && first + 1 < argc &&
                   parse_count(argv[first + 1], 1u << 20, &transactions)) {
            first++;
        } else {
            usage();
            return EXIT_USAGE;
        }
    }
    if ((generate == 0) == (first == argc)) {
        usage();
        return EXIT_USAGE;
    }

    zorcheck_init();
    int status = generate != 0 ? generate_run(generate, transactions)
                               : run_files(argc - first, argv + first, with_state);
    zorcheck_destroy();
    return status;
}
