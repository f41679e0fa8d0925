/* SPDX-License-Identifier: MIT */
#include "xini.h"

#include <gtest/gtest.h>
