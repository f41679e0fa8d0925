/* SPDX-License-Identifier: MIT */
#include "xutil.h"

#include <gtest/gtest.h>
