/* SPDX-License-Identifier: MIT */
#include "xwrap.h"

#include <gtest/gtest.h>
