/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>

namespace keel {

/* What both packing functions are: mode 1 takes decimal digits, mode 2 hexadecimal ones. Another
 * mode gives -1 as soon as there is a character to take. */
int convert_str2xxx(void *out, std::size_t capacity, const char *str, int mode);

} // namespace keel
