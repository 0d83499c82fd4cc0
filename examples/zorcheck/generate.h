/* generate.h - zorcheck's scale mode (generate.c). */
#ifndef ZORCHECK_GENERATE_H
#define ZORCHECK_GENERATE_H

#include <stdint.h>

/* Loads n interfaces with an address and a route each, then runs the transactions. */
int generate_run(uint64_t n, uint64_t transactions);

/* From main.c. */
void rollback_check(void);

#endif /* ZORCHECK_GENERATE_H */
