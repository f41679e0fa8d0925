/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>
#include <type_traits>

/* Programs are compiled against the records: a field has its type and its place in them for ever.
 */
#define LIES_AT(record, field, type, place)                                                        \
    static_assert(offsetof(record, field) == (place) &&                                            \
                  std::is_same_v<decltype(record::field), type>)
