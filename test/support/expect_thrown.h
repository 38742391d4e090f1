/// Failures by their type and text.
#pragma once

#include <string>

#include <gtest/gtest.h>

namespace vorn_test {

/// `what` throws an Exception of exactly this text.
template <typename Exception, typename Do>
void expect_thrown(Do what, const std::string& text) {
  try {
    what();
    ADD_FAILURE() << "not thrown: " << text;
  } catch (const Exception& e) {
    EXPECT_EQ(text, e.what());
  }
}

}  // namespace vorn_test
