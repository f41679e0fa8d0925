/* SPDX-License-Identifier: MIT */
#include "xstring.h"

#include <gtest/gtest.h>
