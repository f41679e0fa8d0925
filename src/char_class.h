/* SPDX-License-Identifier: MIT */
#pragma once

#include <cctype>

namespace keel {

/* The current locale's character classes, looked up once for a whole string: a call of isspace() or
 * isprint() for each character costs several times the work it decides. The table covers signed
 * and unsigned bytes, -128 to 255. */
class char_class {
  public:
    bool space(char c) const { return (table_[static_cast<signed char>(c)] & _ISspace) != 0; }
    bool print(unsigned char c) const { return (table_[c] & _ISprint) != 0; }

  private:
    const unsigned short *table_ = *__ctype_b_loc();
};

} // namespace keel
