/* SPDX-License-Identifier: MIT */
#include "xthread_util.h"

#include <gtest/gtest.h>
