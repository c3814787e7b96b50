#include <gtest/gtest.h>

#include "AKUDoa/akudoa.h"

TEST(Build, UmbrellaHeaderCompiles) { SUCCEED(); }
