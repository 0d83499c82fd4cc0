/*
 * zor_layout.h - compile-time checks of a struct's field order (C++ sources
 * of the library only; not installed).
 *
 *     ZOR_LAYOUT(zor_list_link, 16, next, prev);
 *
 * states that the struct holds exactly the named fields, in that order:
 * the first at offset 0, each following one at the first offset after the
 * one before it that its alignment allows (nothing in between), and nothing
 * after the last but tail padding. The number is the sum of the fields' own
 * sizes, padding excluded, so a field whose type changes size fails the
 * check even where padding would absorb the change. A reordered, inserted,
 * removed or resized field stops the build with "TYPE field order".
 */
#ifndef ZOR_LAYOUT_H
#define ZOR_LAYOUT_H

#include <stddef.h>

#include <type_traits>

namespace zor_layout
{

/* What the compiler made of one field. */
struct field {
    size_t offset;
    size_t size;
    size_t align;
};

/* sizeof a field's type; 0 for a flexible array member, which ends the struct. */
template <typename T> constexpr size_t size_of()
{
    if constexpr (std::is_array_v<T> && std::extent_v<T> == 0)
        return 0;
    else
        return sizeof(T);
}

constexpr field field_of(size_t offset, size_t size, size_t align)
{
    return field{offset, size, align};
}

constexpr size_t align_up(size_t offset, size_t align)
{
    return (offset + align - 1) / align * align;
}

/* True when `fields`, in order, are laid out back to back as described above. */
template <typename T, size_t N> constexpr bool in_order(size_t bytes, const field (&fields)[N])
{
    size_t end = 0;
    size_t sum = 0;
    for (size_t i = 0; i < N; i++) {
        if (fields[i].offset != align_up(end, fields[i].align))
            return false;
        end = fields[i].offset + fields[i].size;
        sum += fields[i].size;
    }
    return sum == bytes && sizeof(T) == align_up(end, alignof(T));
}

} // namespace zor_layout

#define ZOR_LAYOUT_FIELD_(type, f)                                                                 \
    zor_layout::field_of(offsetof(type, f), zor_layout::size_of<decltype(((type *)0)->f)>(),       \
                         alignof(decltype(((type *)0)->f)))

/* ZOR_LAYOUT_FIELDS_(type, f1, ..., fn): the descriptions of up to 24 fields. */
#define ZOR_LAYOUT_FIELDS_(type, ...)                                                              \
    ZOR_LAYOUT_PICK_(__VA_ARGS__, ZOR_LAYOUT_24_, ZOR_LAYOUT_23_, ZOR_LAYOUT_22_, ZOR_LAYOUT_21_,  \
                     ZOR_LAYOUT_20_, ZOR_LAYOUT_19_, ZOR_LAYOUT_18_, ZOR_LAYOUT_17_,               \
                     ZOR_LAYOUT_16_, ZOR_LAYOUT_15_, ZOR_LAYOUT_14_, ZOR_LAYOUT_13_,               \
                     ZOR_LAYOUT_12_, ZOR_LAYOUT_11_, ZOR_LAYOUT_10_, ZOR_LAYOUT_9_, ZOR_LAYOUT_8_, \
                     ZOR_LAYOUT_7_, ZOR_LAYOUT_6_, ZOR_LAYOUT_5_, ZOR_LAYOUT_4_, ZOR_LAYOUT_3_,    \
                     ZOR_LAYOUT_2_, ZOR_LAYOUT_1_)                                                 \
    (type, __VA_ARGS__)
#define ZOR_LAYOUT_PICK_(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16,    \
                         _17, _18, _19, _20, _21, _22, _23, _24, name, ...)                        \
    name
#define ZOR_LAYOUT_1_(t, f)       ZOR_LAYOUT_FIELD_(t, f)
#define ZOR_LAYOUT_2_(t, f, ...)  ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_1_(t, __VA_ARGS__)
#define ZOR_LAYOUT_3_(t, f, ...)  ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_2_(t, __VA_ARGS__)
#define ZOR_LAYOUT_4_(t, f, ...)  ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_3_(t, __VA_ARGS__)
#define ZOR_LAYOUT_5_(t, f, ...)  ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_4_(t, __VA_ARGS__)
#define ZOR_LAYOUT_6_(t, f, ...)  ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_5_(t, __VA_ARGS__)
#define ZOR_LAYOUT_7_(t, f, ...)  ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_6_(t, __VA_ARGS__)
#define ZOR_LAYOUT_8_(t, f, ...)  ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_7_(t, __VA_ARGS__)
#define ZOR_LAYOUT_9_(t, f, ...)  ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_8_(t, __VA_ARGS__)
#define ZOR_LAYOUT_10_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_9_(t, __VA_ARGS__)
#define ZOR_LAYOUT_11_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_10_(t, __VA_ARGS__)
#define ZOR_LAYOUT_12_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_11_(t, __VA_ARGS__)
#define ZOR_LAYOUT_13_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_12_(t, __VA_ARGS__)
#define ZOR_LAYOUT_14_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_13_(t, __VA_ARGS__)
#define ZOR_LAYOUT_15_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_14_(t, __VA_ARGS__)
#define ZOR_LAYOUT_16_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_15_(t, __VA_ARGS__)
#define ZOR_LAYOUT_17_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_16_(t, __VA_ARGS__)
#define ZOR_LAYOUT_18_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_17_(t, __VA_ARGS__)
#define ZOR_LAYOUT_19_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_18_(t, __VA_ARGS__)
#define ZOR_LAYOUT_20_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_19_(t, __VA_ARGS__)
#define ZOR_LAYOUT_21_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_20_(t, __VA_ARGS__)
#define ZOR_LAYOUT_22_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_21_(t, __VA_ARGS__)
#define ZOR_LAYOUT_23_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_22_(t, __VA_ARGS__)
#define ZOR_LAYOUT_24_(t, f, ...) ZOR_LAYOUT_FIELD_(t, f), ZOR_LAYOUT_23_(t, __VA_ARGS__)

/* The check itself; see the top of this file. */
#define ZOR_LAYOUT(type, bytes, ...)                                                               \
    static_assert(zor_layout::in_order<type>(bytes, {ZOR_LAYOUT_FIELDS_(type, __VA_ARGS__)}),      \
                  #type " field order")

#endif /* ZOR_LAYOUT_H */
