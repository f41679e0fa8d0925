/* SPDX-License-Identifier: MIT */

/* Input: the room, what fills it before, then the digits with a NUL byte behind them, then bytes.
 */
#include "xconvert.h"

#include <climits>
#include <memory>

#include "fuzz_input.h"
#include "plain_convert.h"

using keel_fuzz::require;

namespace {

/* A block of just its size, filled with one character. */
class filled_room {
  public:
    filled_room(std::size_t size, char filling)
        : block_(new char[size]), size_(size), filling_(filling) {
        std::fill_n(block_.get(), size, filling);
    }

    char *get() const { return block_.get(); }

    bool holds(std::string expected) const {
        expected.resize(size_, filling_);
        return expected == std::string(block_.get(), size_);
    }

  private:
    std::unique_ptr<char[]> block_;
    std::size_t size_;
    char filling_;
};

/* Room is said to be there beyond what is: twice `stated` may be more than a size holds. */
void check_packing(const std::string &digits, std::size_t room, std::size_t stated, char filling) {
    const std::string text(digits.c_str(), digits.size() + 1);
    const filled_room decimal(room, filling);
    const std::string tens = keel_test::plain_packed(digits, room, false);
    require(convert_str2bcd(decimal.get(), stated, text.data()) == static_cast<int>(tens.size()) &&
                decimal.holds(tens),
            "convert_str2bcd");
    const filled_room hexadecimal(room, filling);
    const std::string sixteens = keel_test::plain_packed(digits, room, true);
    require(convert_str2bch(hexadecimal.get(), stated, text.data()) ==
                    static_cast<int>(sixteens.size()) &&
                hexadecimal.holds(sixteens),
            "convert_str2bch");
}

void check_unpacking(const std::string &bytes, std::size_t room, char filling) {
    const filled_room text(room, filling);
    const bool fits = 2 * bytes.size() + 1 <= room;
    require(convert_bch2str(text.get(), room, bytes.data(), bytes.size()) == (fits ? 0 : -1) &&
                text.holds(fits ? keel_test::plain_unpacked(bytes) + '\0' : ""),
            "convert_bch2str");
    require(convert_bch2str(text.get(), room, bytes.data(), SIZE_MAX / 2 + room) == -1,
            "convert_bch2str of more than there can be");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    keel_fuzz::fuzz_input input(data, size);
    const std::size_t room = input.byte();
    const char filling = static_cast<char>(input.byte());
    const std::string digits = input.line();
    const std::string bytes = input.content(1'000);
    check_packing(digits, room, room, filling);
    check_packing(digits, digits.size(), SIZE_MAX / 2 + room, filling);
    check_unpacking(bytes, room, filling);
    check_unpacking(bytes, 2 * bytes.size() + 1, filling);
    return 0;
}
