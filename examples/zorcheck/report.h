/* report.h - the JSON report of zorcheck (report.c). */
#ifndef ZORCHECK_REPORT_H
#define ZORCHECK_REPORT_H

#include "zorcheck.h"

void report_begin(void);
void report_flush(void);
void report_accepted(const char *file, const char *description, const txn_stats *stats);
void report_rejected(const char *file, const char *description, const txn_stats *stats);
void report_error(const char *file, const char *error);
void report_end(int with_state);

#endif /* ZORCHECK_REPORT_H */
