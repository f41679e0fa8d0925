/* SPDX-License-Identifier: MIT */
#include "xstdio.h"

#include <gtest/gtest.h>
