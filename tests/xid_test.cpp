/* SPDX-License-Identifier: MIT */
#include "xid.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include "child.h"

namespace {

using keel_test::exited;
using keel_test::run_in_child;

constexpr std::uint32_t all = 32768;
constexpr std::uint32_t none_given_yet = 0xffffffff;
constexpr std::uint64_t full_word = UINT64_MAX;

const std::string warning =
    "This is an id producer with binding, no argument auto free function warning.\n";

struct delete_producer {
    void operator()(idproducer *ids) const { idproducer_del(ids); }
};

using producer = std::unique_ptr<idproducer, delete_producer>;

/* What was freed as an argument, in order. */
std::vector<void *> freed;

void note_freed(void *arg) {
    freed.push_back(arg);
}

producer plain_producer() {
    return producer(idproducer_new(0, nullptr));
}

producer binding_producer() {
    freed.clear();
    return producer(idproducer_new(1, note_freed));
}

/* An argument of its own for each number; never null. */
void *argument(std::uintptr_t number) {
    return reinterpret_cast<void *>(0x10000 + number);
}

void take_all(idproducer *ids) {
    for (std::uint32_t id = 0; id < all; id++)
        ASSERT_EQ(idproducer_alloc(ids, argument(id)), static_cast<std::int32_t>(id));
}

void give_back(idproducer *ids, const std::vector<std::uint32_t> &given) {
    for (const std::uint32_t id : given)
        EXPECT_EQ(idproducer_free(ids, id, nullptr), 0) << id;
}

/* The next ones, until there is none. */
std::vector<std::int32_t> take_rest(idproducer *ids) {
    std::vector<std::int32_t> taken;
    for (std::int32_t id; (id = idproducer_alloc(ids, nullptr)) != -1;)
        taken.push_back(id);
    return taken;
}

bool in_use(const idproducer *ids, std::uint32_t id) {
    return (ids->bitmap[id >> ids->shift] >> (id & (ids->bits - 1)) & 1) != 0;
}

/* All that a call may change, but for what is bound. */
struct state {
    explicit state(const idproducer *ids)
        : last(ids->last), free(ids->free), bitmap(ids->bitmap, ids->bitmap + 512) {}

    bool operator==(const state &) const = default;

    std::uint32_t last, free;
    std::vector<std::uint64_t> bitmap;
};

TEST(IdProducer, RecordHasItsFieldsInPlace) {
    const struct {
        std::size_t offset, expected;
    } rows[] = {
        {offsetof(idproducer, last), 0},        {offsetof(idproducer, free), 4},
        {offsetof(idproducer, shift), 8},       {offsetof(idproducer, bits), 12},
        {offsetof(idproducer, bitmap), 16},     {offsetof(idproducer, args), 4112},
        {offsetof(idproducer, arg_free), 4120}, {sizeof(idproducer), 4128},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.offset, row.expected);
    static_assert(std::is_same_v<decltype(idproducer_alloc(nullptr, nullptr)), std::int32_t>);
}

TEST(IdProducerNew, MakesAProducerWithAllIdentifiersFree) {
    const producer ids = plain_producer();
    EXPECT_EQ(ids->last, none_given_yet);
    EXPECT_EQ(ids->free, all);
    EXPECT_EQ(ids->shift, 6U);
    EXPECT_EQ(ids->bits, 64U);
    EXPECT_TRUE(std::all_of(ids->bitmap, ids->bitmap + 512, [](auto word) { return word == 0; }));
    EXPECT_EQ(ids->args, nullptr);
    EXPECT_EQ(ids->arg_free, nullptr);
}

TEST(IdProducerNew, BindsForExactlyOne) {
    for (const std::int32_t binding : {INT32_MIN, -1, 0, 1, 2, 3, 257, 65537, INT32_MAX}) {
        const producer ids(idproducer_new(binding, note_freed));
        ASSERT_NE(ids, nullptr);
        EXPECT_EQ(ids->args != nullptr, binding == 1) << binding;
        EXPECT_EQ(ids->arg_free == note_freed, binding == 1) << binding;
        EXPECT_EQ(ids->arg_free == nullptr, binding != 1) << binding;
        EXPECT_EQ(ids->last, none_given_yet);
        EXPECT_EQ(ids->free, all);
    }
}

TEST(IdProducerNew, BindsNothingAtFirst) {
    const producer ids = binding_producer();
    EXPECT_TRUE(std::all_of(ids->args, ids->args + all, [](void *arg) { return arg == nullptr; }));
}

TEST(IdProducerNew, RemarksThatNothingFreesTheArguments) {
    const struct {
        std::int32_t binding;
        void (*arg_free)(void *);
        std::string remark;
    } rows[] = {
        {1, nullptr, warning}, {1, note_freed, ""}, {0, nullptr, ""},
        {0, note_freed, ""},   {2, nullptr, ""},    {-1, nullptr, ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(run_in_child([&] {
                      idproducer *ids = idproducer_new(row.binding, row.arg_free);
                      if (idproducer_alloc(ids, nullptr) != 0 || idproducer_del(ids) != 0)
                          _exit(1);
                  }),
                  exited(0, row.remark))
            << row.binding;
}

TEST(IdProducer, SaysNothingElse) {
    EXPECT_EQ(run_in_child([] {
                  idproducer *ids = idproducer_new(1, note_freed);
                  while (idproducer_alloc(ids, nullptr) != -1)
                      ;
                  for (int time = 0; time < 2; time++)
                      idproducer_free(ids, 7, nullptr);
                  idproducer_del(ids);
              }),
              exited(0));
}

TEST(IdProducerAlloc, BeginsAtZero) {
    const producer ids = plain_producer();
    for (std::uint32_t id = 0; id < 3; id++) {
        EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), static_cast<std::int32_t>(id));
        EXPECT_EQ(ids->last, id);
        EXPECT_EQ(ids->free, all - id - 1);
    }
    EXPECT_EQ(ids->bitmap[0], 7U);
}

TEST(IdProducerAlloc, GivesEachIdentifierOnceAndThenNone) {
    const producer ids = plain_producer();
    take_all(ids.get());
    EXPECT_EQ(ids->free, 0U);
    EXPECT_EQ(ids->last, all - 1);
    EXPECT_TRUE(
        std::all_of(ids->bitmap, ids->bitmap + 512, [](auto word) { return word == full_word; }));
    const state before(ids.get());
    for (int time = 0; time < 3; time++)
        EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), -1);
    EXPECT_EQ(state(ids.get()), before);
}

/* One is in use at a time: they come in turn, and 0 comes after 32767. */
TEST(IdProducerAlloc, WalksTheWholeSpaceBeforeItUsesOneAgain) {
    const producer ids = plain_producer();
    for (std::uint32_t i = 0; i < 2 * all + 3; i++) {
        const std::int32_t id = idproducer_alloc(ids.get(), nullptr);
        ASSERT_EQ(id, static_cast<std::int32_t>(i % all));
        ASSERT_EQ(idproducer_free(ids.get(), i % all, nullptr), 0);
        ASSERT_EQ(ids->last, i % all);
        ASSERT_EQ(ids->free, all);
    }
}

TEST(IdProducerAlloc, DoesNotGiveOutAgainWhatWasJustFreed) {
    const producer ids = plain_producer();
    for (int i = 0; i < 10; i++)
        idproducer_alloc(ids.get(), nullptr);
    give_back(ids.get(), {5, 9});
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), 10);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), 11);
}

TEST(IdProducerAlloc, SkipsThoseInUseAllTheWayRound) {
    const producer ids = plain_producer();
    for (int i = 0; i < 200; i++)
        idproducer_alloc(ids.get(), nullptr);
    give_back(ids.get(), {3, 64, 130});
    for (std::uint32_t id = 200; id < all; id++)
        ASSERT_EQ(idproducer_alloc(ids.get(), nullptr), static_cast<std::int32_t>(id));
    EXPECT_EQ(take_rest(ids.get()), (std::vector<std::int32_t>{3, 64, 130}));
}

TEST(IdProducerAlloc, GivesTheFirstFreeOneBehindTheLast) {
    const struct {
        std::uint32_t last; // the one given most recently
        std::vector<std::uint32_t> freed;
        std::vector<std::int32_t> expected;
    } rows[] = {
        {32767, {100}, {100}},
        {32767, {100, 50}, {50, 100}},
        {70, {100, 50}, {100, 50}},
        {100, {101, 99, 0, 32767}, {101, 32767, 0, 99}},
        {0, {1, 32767}, {1, 32767}},
        {1, {0}, {0}},
        {5, {5}, {5}}, // itself, once round
        {32766, {32767, 0}, {32767, 0}},
        {32767, {32767, 0}, {0, 32767}},
        {63, {64, 63, 62}, {64, 62, 63}},
        {62, {64, 63, 62}, {63, 64, 62}},
        {64, {64, 63, 62}, {62, 63, 64}},
        {20'000, {19'999, 20'001, 127, 128}, {20'001, 127, 128, 19'999}},
    };
    for (const auto &row : rows) {
        const producer ids = plain_producer();
        take_all(ids.get());
        give_back(ids.get(), {row.last});
        ASSERT_EQ(idproducer_alloc(ids.get(), nullptr), static_cast<std::int32_t>(row.last));
        give_back(ids.get(), row.freed);
        EXPECT_EQ(ids->free, row.freed.size());
        EXPECT_EQ(take_rest(ids.get()), row.expected) << row.last;
    }
}

TEST(IdProducerAlloc, FindsTheOnlyOneThatIsLeft) {
    const producer ids = plain_producer();
    take_all(ids.get());
    for (std::uint32_t id = 0; id<all; id += id % 64> 1 && id % 64 < 62 ? 7 : 1) {
        give_back(ids.get(), {id});
        ASSERT_EQ(take_rest(ids.get()), std::vector{static_cast<std::int32_t>(id)});
        ASSERT_EQ(ids->last, id);
    }
}

TEST(IdProducerFree, RefusesWhatIsNotInUse) {
    const producer ids = binding_producer();
    for (int i = 0; i < 3; i++)
        idproducer_alloc(ids.get(), argument(0));
    give_back(ids.get(), {1});
    freed.clear();
    const state before(ids.get());
    void *out = argument(9);
    for (const std::uint32_t id : {1U, 3U, 64U, 32767U, 32769U, 65537U, UINT32_MAX}) {
        EXPECT_EQ(idproducer_free(ids.get(), id, nullptr), -1) << id;
        EXPECT_EQ(idproducer_free(ids.get(), id, &out), -1) << id;
    }
    EXPECT_EQ(state(ids.get()), before);
    EXPECT_EQ(out, argument(9));
    EXPECT_TRUE(freed.empty());
}

TEST(IdProducerFree, LeavesTheRotationWhereItWas) {
    const producer ids = plain_producer();
    for (int i = 0; i < 4; i++)
        idproducer_alloc(ids.get(), nullptr);
    for (std::uint32_t id = 4; id-- > 0;) {
        EXPECT_EQ(idproducer_free(ids.get(), id, nullptr), 0);
        EXPECT_EQ(ids->last, 3U);
        EXPECT_EQ(ids->free, all - id);
        EXPECT_FALSE(in_use(ids.get(), id));
    }
}

TEST(IdProducer, IgnoresArgumentsWithoutBinding) {
    const producer ids(idproducer_new(0, note_freed));
    freed.clear();
    void *out = argument(9);
    EXPECT_EQ(idproducer_alloc(ids.get(), argument(1)), 0);
    EXPECT_EQ(idproducer_alloc(ids.get(), argument(2)), 1);
    EXPECT_EQ(idproducer_free(ids.get(), 0, &out), 0);
    EXPECT_EQ(idproducer_free(ids.get(), 1, nullptr), 0);
    EXPECT_EQ(out, argument(9));
    EXPECT_TRUE(freed.empty());
}

TEST(IdProducerAlloc, BindsItsArgument) {
    const producer ids = binding_producer();
    for (std::uint32_t id = 0; id < 3; id++) {
        EXPECT_EQ(idproducer_alloc(ids.get(), argument(id)), static_cast<std::int32_t>(id));
        EXPECT_EQ(ids->args[id], argument(id));
    }
    EXPECT_EQ(ids->args[3], nullptr);
    EXPECT_TRUE(freed.empty());
}

TEST(IdProducerAlloc, BindsNothingWhereNoneIsFree) {
    const producer ids = binding_producer();
    take_all(ids.get());
    const std::vector<void *> before(ids->args, ids->args + all);
    EXPECT_EQ(idproducer_alloc(ids.get(), argument(all)), -1);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), ids->args));
    EXPECT_TRUE(freed.empty());
}

TEST(IdProducerFree, HandsBackOrFreesWhatIsBound) {
    const struct {
        void *bound;
        bool taken_back;
        std::vector<void *> freed;
    } rows[] = {
        {argument(1), true, {}},
        {argument(1), false, {argument(1)}},
        {nullptr, true, {}},
        {nullptr, false, {}},
    };
    for (const auto &row : rows) {
        const producer ids = binding_producer();
        void *out = argument(9);
        ASSERT_EQ(idproducer_alloc(ids.get(), row.bound), 0);
        EXPECT_EQ(idproducer_free(ids.get(), 0, row.taken_back ? &out : nullptr), 0);
        EXPECT_EQ(out, row.taken_back ? row.bound : argument(9));
        EXPECT_EQ(freed, row.freed);
        EXPECT_EQ(ids->args[0], nullptr);
        EXPECT_EQ(ids->free, all);
        EXPECT_EQ(idproducer_free(ids.get(), 0, nullptr), -1);
        EXPECT_EQ(freed, row.freed) << "not twice";
    }
}

TEST(IdProducerFree, LeavesArgumentsThatNothingFreesToTheirOwners) {
    EXPECT_EQ(run_in_child([] {
                  idproducer *ids = idproducer_new(1, nullptr);
                  idproducer_alloc(ids, argument(0));
                  idproducer_alloc(ids, argument(1));
                  void *out = nullptr;
                  const bool freed_both =
                      idproducer_free(ids, 0, nullptr) == 0 && idproducer_free(ids, 1, &out) == 0;
                  if (!freed_both || ids->args[0] != nullptr || out != argument(1))
                      _exit(1);
                  idproducer_alloc(ids, argument(2));
                  if (idproducer_del(ids) != 0)
                      _exit(2);
              }),
              exited(0, warning));
}

/* Only the bitmap knows an identifier by its low bits. */
TEST(IdProducerFree, TouchesNoArgumentBehindTheTable) {
    for (const std::uint32_t above : {all, 2 * all, 0x80000000U, UINT32_MAX - (all - 1)}) {
        const producer ids = binding_producer();
        idproducer_alloc(ids.get(), argument(0));
        idproducer_alloc(ids.get(), argument(1));
        void *out = argument(9);
        EXPECT_EQ(idproducer_free(ids.get(), above + 1, nullptr), 0);
        EXPECT_EQ(idproducer_free(ids.get(), above, &out), 0);
        EXPECT_FALSE(in_use(ids.get(), 0) || in_use(ids.get(), 1));
        EXPECT_EQ(ids->free, all);
        EXPECT_EQ(ids->args[1], argument(1));
        EXPECT_EQ(out, argument(9));
        EXPECT_TRUE(freed.empty());
    }
}

TEST(IdProducerDel, FreesWhatIsBoundInTheOrderOfTheIdentifiers) {
    producer ids = binding_producer();
    take_all(ids.get());
    std::vector<std::uint32_t> order(all);
    std::iota(order.begin(), order.end(), 0U);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    order.resize(all / 2);
    void *out = nullptr;
    for (const std::uint32_t id : order)
        ASSERT_EQ(idproducer_free(ids.get(), id, &out), 0);
    for (std::uint32_t i = 0; i < all / 4; i++) // some of them again, every other one unbound
        ASSERT_NE(idproducer_alloc(ids.get(), i % 2 == 0 ? argument(all + i) : nullptr), -1);
    std::vector<void *> bound(ids->args, ids->args + all);
    bound.erase(std::remove(bound.begin(), bound.end(), nullptr), bound.end());
    EXPECT_EQ(bound.size(), all / 2 + all / 8);
    freed.clear();
    EXPECT_EQ(idproducer_del(ids.release()), 0);
    EXPECT_EQ(freed, bound);
}

TEST(IdProducerDel, FreesBothEndsOfTheTable) {
    producer ids = binding_producer();
    take_all(ids.get());
    void *out = nullptr;
    for (std::uint32_t id = 1; id < all - 1; id++)
        idproducer_free(ids.get(), id, &out);
    EXPECT_EQ(idproducer_del(ids.release()), 0);
    EXPECT_EQ(freed, (std::vector{argument(0), argument(all - 1)}));
}

TEST(IdProducerDel, FreesNothingWithoutBinding) {
    producer ids(idproducer_new(0, note_freed));
    freed.clear();
    idproducer_alloc(ids.get(), argument(0));
    EXPECT_EQ(idproducer_del(ids.release()), 0);
    EXPECT_TRUE(freed.empty());
}

TEST(FindNextZeroBit, FindsTheLowestFreeOneFromStartOn) {
    const producer ids = plain_producer();
    for (const std::uint32_t start : {0U, 1U, 63U, 64U, 32767U})
        EXPECT_EQ(find_next_zero_bit(start, ids.get()), start);
    take_all(ids.get());
    give_back(ids.get(), {10, 63, 64, 1'000, 32'700});
    const struct {
        std::uint32_t start, expected;
    } rows[] = {
        {0, 10},          {10, 10},       {11, 63},          {63, 63},
        {64, 64},         {65, 1'000},    {1'000, 1'000},    {1'001, 32'700},
        {32'700, 32'700}, {32'701, all},  {32'767, all},     {all, all},
        {all + 1, all},   {2 * all, all}, {UINT32_MAX, all}, {UINT32_MAX - 63, all},
    };
    const state before(ids.get());
    for (const auto &row : rows)
        EXPECT_EQ(find_next_zero_bit(row.start, ids.get()), row.expected) << row.start;
    EXPECT_EQ(state(ids.get()), before);
}

TEST(FindNextZeroBit, FindsNoneWhereAllAreTaken) {
    const producer ids = plain_producer();
    take_all(ids.get());
    for (std::uint32_t start = 0; start < all; start += 61)
        EXPECT_EQ(find_next_zero_bit(start, ids.get()), all);
}

/* Each returns 1 where the bit was already as wanted. */
TEST(Bits, SetAndClearTellWhetherTheyWereAlready) {
    const producer ids = plain_producer();
    for (const std::uint32_t id : {0U, 1U, 63U, 64U, 12'345U, 32'767U}) {
        EXPECT_EQ(test_and_clr_bit(id, ids.get()), 1);
        EXPECT_EQ(test_and_set_bit(id, ids.get()), 0);
        EXPECT_TRUE(in_use(ids.get(), id));
        EXPECT_EQ(test_and_set_bit(id, ids.get()), 1);
        EXPECT_TRUE(in_use(ids.get(), id));
        EXPECT_EQ(ids->bitmap[id / 64], UINT64_C(1) << id % 64) << "and no other one";
        EXPECT_EQ(test_and_clr_bit(id, ids.get()), 0);
        EXPECT_FALSE(in_use(ids.get(), id));
        EXPECT_EQ(test_and_clr_bit(id, ids.get()), 1);
        EXPECT_EQ(ids->bitmap[id / 64], 0U);
    }
}

TEST(Bits, AreNotCounted) {
    const producer ids = plain_producer();
    test_and_set_bit(0, ids.get());
    test_and_set_bit(2, ids.get());
    EXPECT_EQ(ids->free, all);
    EXPECT_EQ(ids->last, none_given_yet);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), 1);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), 3);
    EXPECT_EQ(ids->free, all - 2);
}

TEST(Bits, StayInsideTheBitmap) {
    const producer ids = plain_producer();
    for (const std::uint32_t above : {all, 3 * all, UINT32_MAX - (all - 1)})
        for (const std::uint32_t id : {0U, 65U, 32'767U}) {
            EXPECT_EQ(test_and_set_bit(above + id, ids.get()), 0);
            EXPECT_TRUE(in_use(ids.get(), id));
            EXPECT_EQ(test_and_clr_bit(above + id, ids.get()), 0);
            EXPECT_FALSE(in_use(ids.get(), id));
        }
}

TEST(IdProducerAlloc, FailsWhereAllBitsAreSetWhateverTheCountSays) {
    const producer ids = binding_producer();
    for (std::uint32_t id = 0; id < all; id++)
        test_and_set_bit(id, ids.get());
    ASSERT_EQ(ids->free, all);
    const state before(ids.get());
    EXPECT_EQ(idproducer_alloc(ids.get(), argument(0)), -1);
    EXPECT_EQ(state(ids.get()), before);
    EXPECT_TRUE(std::all_of(ids->args, ids->args + all, [](void *arg) { return arg == nullptr; }));
}

TEST(IdProducerAlloc, FailsWhereNoneCountsAsFree) {
    const producer ids = plain_producer();
    ids->free = 0;
    const state before(ids.get());
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), -1);
    EXPECT_EQ(state(ids.get()), before);
}

/* A producer beside a set of the free identifiers and a table of what is bound. */
class compared_producer {
  public:
    explicit compared_producer(unsigned seed) : random_(seed), ids_(binding_producer()) {
        for (std::uint32_t id = 0; id < all; id++)
            free_.insert(free_.end(), id);
    }

    void alloc() {
        void *arg = random_() % 5 == 0 ? nullptr : argument(random_() % 1'000);
        const std::int32_t id = idproducer_alloc(ids_.get(), arg);
        if (free_.empty()) {
            ASSERT_EQ(id, -1);
            return;
        }
        auto next = free_.lower_bound((last_ + 1) % all);
        if (next == free_.end())
            next = free_.begin();
        last_ = *next;
        ASSERT_EQ(id, static_cast<std::int32_t>(last_));
        free_.erase(next);
        bound_[last_] = arg;
    }

    void free() {
        const std::uint32_t id = random_() % all;
        const bool take_back = random_() % 2 == 0;
        void *out = argument(all);
        freed.clear();
        const int result = idproducer_free(ids_.get(), id, take_back ? &out : nullptr);
        const bool was_in_use = free_.insert(id).second;
        ASSERT_EQ(result, was_in_use ? 0 : -1);
        void *arg = was_in_use ? bound_[id] : nullptr;
        bound_.erase(id);
        ASSERT_EQ(out, take_back && was_in_use ? arg : argument(all));
        ASSERT_EQ(freed, take_back || arg == nullptr ? std::vector<void *>() : std::vector{arg});
    }

    void compare() {
        ASSERT_EQ(ids_->free, free_.size());
        ASSERT_EQ(ids_->last, last_);
        for (std::uint32_t id = 0; id < all; id++) {
            ASSERT_EQ(in_use(ids_.get(), id), free_.count(id) == 0) << id;
            const auto arg = bound_.find(id);
            ASSERT_EQ(ids_->args[id], arg == bound_.end() ? nullptr : arg->second) << id;
        }
        const std::uint32_t start = random_() % all;
        const auto next = free_.lower_bound(start);
        ASSERT_EQ(find_next_zero_bit(start, ids_.get()), next == free_.end() ? all : *next);
    }

    std::mt19937 &random() { return random_; }

  private:
    std::mt19937 random_;
    producer ids_;
    std::uint32_t last_ = none_given_yet;
    std::set<std::uint32_t> free_;
    std::map<std::uint32_t, void *> bound_;
};

TEST(IdProducer, DoesWhatASetOfTheFreeOnesSays) {
    for (unsigned seed = 0; seed < 3; seed++) {
        compared_producer compared(seed);
        for (const unsigned allocs_of_ten : {9U, 5U, 10U, 9U, 2U, 6U}) {
            for (int turn = 0; turn < 20'000 && !testing::Test::HasFatalFailure(); turn++)
                compared.random()() % 10 < allocs_of_ten ? compared.alloc() : compared.free();
            compared.compare();
            ASSERT_FALSE(testing::Test::HasFatalFailure());
        }
    }
}

} // namespace
