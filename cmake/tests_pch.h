// SPDX-License-Identifier: Apache-2.0
// The same for tests.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pch.h"
