/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <gtest/gtest.h>
