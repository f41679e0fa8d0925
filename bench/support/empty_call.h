/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdint>

namespace bench {

/* Does nothing: what a call with variable arguments costs by itself. */
int empty_call(int id, std::uint32_t level, const char *format, ...);

} // namespace bench
