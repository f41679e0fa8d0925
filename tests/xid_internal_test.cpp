/* SPDX-License-Identifier: MIT */
#include "xid.h"

#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>

#include "allocation_faults.h"
#include "child.h"

namespace {

using keel_test::allocations_left;
using keel_test::exited;
using keel_test::failing_allocation;
using keel_test::run_in_child;

TEST(IdProducerNew, EndsWithoutMemory) {
    const struct {
        std::int32_t binding;
        int failing; // which allocation
    } rows[] = {{0, 1}, {1, 1}, {1, 2}};
    for (const auto &row : rows)
        EXPECT_EQ(run_in_child([&] {
                      const failing_allocation fault(row.failing);
                      idproducer_new(row.binding, std::free);
                  }),
                  exited(255, "No memory!!!\n"))
            << row.binding << ' ' << row.failing;
}

/* Only a producer that binds has a table of arguments; all its memory is there from the start. */
TEST(IdProducer, AllocatesWhenItIsMadeAlone) {
    constexpr int many = 100;
    for (const std::int32_t binding : {0, 1}) {
        const failing_allocation far_off(many);
        idproducer *ids = idproducer_new(binding, std::free);
        while (idproducer_alloc(ids, nullptr) != -1)
            ;
        idproducer_free(ids, 1, nullptr);
        idproducer_del(ids);
        EXPECT_EQ(many - allocations_left, 1 + binding);
    }
}

} // namespace
