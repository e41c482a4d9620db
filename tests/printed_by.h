// What a call prints to standard error.
#pragma once

#include <gtest/gtest.h>

#include <string>

template <typename Call>
std::string printed_by(Call call) {
  testing::internal::CaptureStderr();
  call();
  return testing::internal::GetCapturedStderr();
}
