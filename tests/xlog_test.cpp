/* SPDX-License-Identifier: MIT */
#include "xlog.h"

#include <gtest/gtest.h>
