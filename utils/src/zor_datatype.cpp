/*
 * Datatypes: calling operations through a descriptor that may be missing.
 */
#include "zor_datatype.h"

static_assert(offsetof(zor_datatype_info, local_id) == 0, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, size) == 8, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, properties) == 16, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, str) == 24, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, parse) == 32, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, copy) == 40, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, write) == 48, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, cmp_eq) == 56, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, cmp) == 64, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, free) == 72, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, init) == 80, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, id) == 88, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, parent_id) == 92, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, ns_id) == 96, "zor_datatype_info field order");
static_assert(offsetof(zor_datatype_info, priv) == 104, "zor_datatype_info field order");

const char *zor_datatype_str(const void *value, const zor_datatype_info *info)
{
    if (info == nullptr || info->str == nullptr)
        return "<Unknown>";
    return info->str(value, info);
}

int zor_datatype_cmp_eq(const void *a, const void *b, const zor_datatype_info *info)
{
    if (info == nullptr || info->cmp_eq == nullptr)
        return 0;
    return info->cmp_eq(a, b, info) == 0 ? 1 : 0;
}
