/* SPDX-License-Identifier: MIT */
#include "xinotify.h"

#include <gtest/gtest.h>
