/*
 * zor.h - the umbrella header: includes every public header of the library.
 * A program needs only #include "zor.h" with the headers' directory on its
 * include path.
 */
#ifndef ZOR_H
#define ZOR_H

#include "zor_utils.h"
#include "zor_str.h"
#include "zor_iter.h"
#include "zor_list.h"
#include "zor_partition.h"
#include "zor_xxhash.h"
#include "zor_hash.h"
#include "zor_dict.h"
#include "zor_datatype.h"
#include "zor_reg.h"
#include "zor_buffer.h"
#include "zor_json.h"
#include "jsmn/jsmn.h"

#endif /* ZOR_H */
