/* SPDX-License-Identifier: MIT */
#include "xid.h"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "child.h"

namespace {

using keel_test::child_result;
using keel_test::run_in_child;

constexpr std::uint32_t all = 32768;

struct delete_ids {
    void operator()(idproducer *ids) const { idproducer_del(ids); }
};
using unique_ids = std::unique_ptr<idproducer, delete_ids>;

std::vector<void *> freed;

void note_freed(void *arg) {
    freed.push_back(arg);
}

unique_ids new_ids() {
    return unique_ids(idproducer_new(0, nullptr));
}

unique_ids new_binding_ids() {
    freed.clear();
    return unique_ids(idproducer_new(1, note_freed));
}

void *arg(std::uintptr_t number) {
    return reinterpret_cast<void *>(number);
}

void take_all(idproducer &ids) {
    for (std::uint32_t id = 0; id < all; id++)
        ASSERT_EQ(idproducer_alloc(&ids, nullptr), static_cast<std::int32_t>(id));
}

TEST(IdProducer, FieldsStandInTheirOrder) {
    EXPECT_EQ(offsetof(idproducer, last), 0U);
    EXPECT_EQ(offsetof(idproducer, free), 4U);
    EXPECT_EQ(offsetof(idproducer, shift), 8U);
    EXPECT_EQ(offsetof(idproducer, bits), 12U);
    EXPECT_EQ(offsetof(idproducer, bitmap), 16U);
    EXPECT_EQ(offsetof(idproducer, args), 16U + 512 * 8);
    EXPECT_EQ(offsetof(idproducer, arg_free), 16U + 512 * 8 + 8);
}

TEST(IdProducer, StartsEmpty) {
    const unique_ids ids = new_ids();
    EXPECT_EQ(ids->last, 0xffffffffU);
    EXPECT_EQ(ids->free, all);
    EXPECT_EQ(ids->shift, 6U);
    EXPECT_EQ(ids->bits, 64U);
    for (const std::uint64_t word : ids->bitmap)
        EXPECT_EQ(word, 0U);
    EXPECT_EQ(ids->args, nullptr);
    EXPECT_EQ(ids->arg_free, nullptr);
}

TEST(IdProducer, OnlyOneBinds) {
    for (const std::int32_t binding : {0, 2, -1}) {
        const unique_ids ids(idproducer_new(binding, note_freed));
        EXPECT_EQ(ids->args, nullptr) << binding;
        EXPECT_EQ(ids->arg_free, nullptr) << binding;
    }
    const unique_ids ids = new_binding_ids();
    ASSERT_NE(ids->args, nullptr);
    EXPECT_EQ(ids->arg_free, note_freed);
    for (std::uint32_t id = 0; id < all; id++)
        ASSERT_EQ(ids->args[id], nullptr);
}

TEST(IdProducer, RemarksThatNothingFreesTheArguments) {
    const auto make = [](std::int32_t binding, void (*arg_free)(void *)) {
        return run_in_child([=] { idproducer_del(idproducer_new(binding, arg_free)); });
    };
    EXPECT_EQ(make(1, nullptr),
              (child_result{0, 0, "",
                            "This is an id producer with binding, no argument auto free function "
                            "warning.\n"}));
    EXPECT_EQ(make(1, note_freed), (child_result{0, 0, "", ""}));
    EXPECT_EQ(make(0, nullptr), (child_result{0, 0, "", ""}));
}

TEST(IdAlloc, CountsUp) {
    const unique_ids ids = new_ids();
    for (std::uint32_t id = 0; id < 200; id++) {
        EXPECT_EQ(idproducer_alloc(ids.get(), arg(1)), static_cast<std::int32_t>(id));
        EXPECT_EQ(ids->last, id);
        EXPECT_EQ(ids->free, all - id - 1);
        EXPECT_NE(ids->bitmap[id / 64] & (std::uint64_t{1} << id % 64), 0U);
    }
    EXPECT_EQ(ids->args, nullptr);
}

TEST(IdAlloc, EndsWhenAllAreTaken) {
    const unique_ids ids = new_ids();
    take_all(*ids);
    EXPECT_EQ(ids->free, 0U);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), -1);
    EXPECT_EQ(ids->last, all - 1);
    ASSERT_EQ(idproducer_free(ids.get(), 100, nullptr), 0);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), 100);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), -1);
}

TEST(IdAlloc, GoesOnBehindTheLastOneAndRoundTheEnd) {
    const unique_ids ids = new_ids();
    for (int i = 0; i < 10; i++)
        idproducer_alloc(ids.get(), nullptr);
    idproducer_free(ids.get(), 5, nullptr);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), 10) << "not the one that was freed";
    for (std::uint32_t id = 11; id < all; id++)
        idproducer_alloc(ids.get(), nullptr);
    idproducer_free(ids.get(), 100, nullptr);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), 5);
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), 100);
}

TEST(IdAlloc, ABitThatTheCountDoesNotKnowIsRefused) {
    const unique_ids ids = new_ids();
    take_all(*ids);
    ids->free = 1; // though no bit is clear
    EXPECT_EQ(idproducer_alloc(ids.get(), nullptr), -1);
}

TEST(IdFree, OnlyOnce) {
    const unique_ids ids = new_ids();
    idproducer_alloc(ids.get(), nullptr);
    void *out = arg(1);
    EXPECT_EQ(idproducer_free(ids.get(), 0, &out), 0);
    EXPECT_EQ(out, arg(1)) << "nothing is bound";
    EXPECT_EQ(ids->free, all);
    for (const std::uint32_t id : {0U, 1U, all - 1}) {
        EXPECT_EQ(idproducer_free(ids.get(), id, nullptr), -1) << id;
        EXPECT_EQ(ids->free, all);
    }
}

TEST(IdFree, HandsTheArgumentBackOrFreesIt) {
    const unique_ids ids = new_binding_ids();
    for (std::uintptr_t i = 0; i < 4; i++)
        idproducer_alloc(ids.get(), i == 3 ? nullptr : arg(i + 1));
    EXPECT_EQ(ids->args[1], arg(2));

    void *out = nullptr;
    EXPECT_EQ(idproducer_free(ids.get(), 0, &out), 0);
    EXPECT_EQ(out, arg(1));
    EXPECT_TRUE(freed.empty());
    EXPECT_EQ(ids->args[0], nullptr);

    EXPECT_EQ(idproducer_free(ids.get(), 1, nullptr), 0);
    EXPECT_EQ(freed, std::vector<void *>{arg(2)});
    EXPECT_EQ(ids->args[1], nullptr);

    EXPECT_EQ(idproducer_free(ids.get(), 3, nullptr), 0);
    EXPECT_EQ(freed.size(), 1U) << "there was nothing to free";

    out = arg(9);
    EXPECT_EQ(idproducer_free(ids.get(), 1, &out), -1);
    EXPECT_EQ(out, arg(9));
}

TEST(IdFree, TouchesNothingBoundForAHighNumber) {
    const unique_ids ids = new_binding_ids();
    idproducer_alloc(ids.get(), arg(1));
    void *out = arg(9);
    EXPECT_EQ(idproducer_free(ids.get(), all, &out), 0);
    EXPECT_EQ(out, arg(9));
    EXPECT_EQ(ids->free, all);
    EXPECT_EQ(idproducer_free(ids.get(), 0xffffffff, nullptr), -1);
}

TEST(IdDel, FreesWhatIsStillBoundInOrder) {
    unique_ids ids = new_binding_ids();
    for (std::uintptr_t i = 0; i < all; i++)
        idproducer_alloc(ids.get(), i % 1000 == 7 ? arg(i) : nullptr);
    ids.reset();
    std::vector<void *> expected;
    for (std::uintptr_t i = 7; i < all; i += 1000)
        expected.push_back(arg(i));
    EXPECT_EQ(freed, expected);

    idproducer *unbound = idproducer_new(0, nullptr);
    idproducer_alloc(unbound, arg(1));
    EXPECT_EQ(idproducer_del(unbound), 0);
}

TEST(Bits, TellWhetherTheyHadTheValueAlready) {
    const unique_ids ids = new_ids();
    for (const std::uint32_t id : {0U, 63U, 64U, 1000U, all - 1}) {
        EXPECT_EQ(test_and_clr_bit(id, ids.get()), 1) << id;
        EXPECT_EQ(test_and_set_bit(id, ids.get()), 0) << id;
        EXPECT_EQ(test_and_set_bit(id, ids.get()), 1) << id;
        EXPECT_EQ(test_and_set_bit(id + all, ids.get()), 1) << "its low 15 bits count";
        EXPECT_EQ(test_and_clr_bit(id, ids.get()), 0) << id;
        EXPECT_EQ(test_and_clr_bit(id, ids.get()), 1) << id;
    }
    EXPECT_EQ(ids->free, all) << "nothing is counted";
}

TEST(Bits, TheNextClearOneIsFound) {
    const unique_ids ids = new_ids();
    for (std::uint32_t id = 0; id < all; id++)
        test_and_set_bit(id, ids.get());
    EXPECT_EQ(find_next_zero_bit(0, ids.get()), all);
    for (const std::uint32_t clear : {0U, 1U, 63U, 64U, 65U, 127U, 128U, 20000U, all - 1}) {
        test_and_clr_bit(clear, ids.get());
        EXPECT_EQ(find_next_zero_bit(0, ids.get()), clear);
        EXPECT_EQ(find_next_zero_bit(clear, ids.get()), clear);
        EXPECT_EQ(find_next_zero_bit(clear + 1, ids.get()), all);
        test_and_set_bit(clear, ids.get());
    }
    EXPECT_EQ(find_next_zero_bit(all, ids.get()), all);
    EXPECT_EQ(find_next_zero_bit(0xffffffff, ids.get()), all);
}

/* The first free number behind the last one, round the end, as a set of the free ones has it. */
TEST(IdRandom, AgreesWithASetOfTheFreeOnes) {
    const unique_ids ids = new_ids();
    std::set<std::uint32_t> vacant;
    for (std::uint32_t id = 0; id < all; id++)
        vacant.insert(id);
    std::mt19937 random(7);
    std::uint32_t last = all - 1;
    for (int i = 0; i < 200'000; i++) {
        const bool filling = i / 40'000 % 2 == 0;
        if (random() % 10 < (filling ? 9U : 2U)) {
            std::int32_t expected = -1;
            if (!vacant.empty()) {
                auto next = vacant.upper_bound(last);
                next = next == vacant.end() ? vacant.begin() : next;
                last = *next;
                expected = static_cast<std::int32_t>(last);
                vacant.erase(next);
            }
            ASSERT_EQ(idproducer_alloc(ids.get(), nullptr), expected);
        } else {
            const std::uint32_t id = random() % all;
            ASSERT_EQ(idproducer_free(ids.get(), id, nullptr), vacant.insert(id).second ? 0 : -1);
        }
        ASSERT_EQ(ids->free, vacant.size());
    }
}

} // namespace
