/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <gtest/gtest.h>
