// SPDX-License-Identifier: Apache-2.0
#include "varda/selftest/selftest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "varda/selftest/problems.h"
#include "varda/selftest/selftest_report.h"

namespace {

using testing::HasSubstr;
using varda::selftest_case;

TEST(Selftest, EveryProblemPasses) {
  varda::job alone(nullptr, nullptr);
  std::size_t begun = 0;
  const auto outcomes = varda::run_selftest(alone, [&](const std::string&) { ++begun; });
  EXPECT_EQ(begun, outcomes.size());
  std::size_t figures = 0;
  for (const selftest_case& c : outcomes) {
    EXPECT_TRUE(c.passed()) << c.title << ": " << c.failure;
    figures += c.figures.size();
  }
  // -2 log-likelihoods, and an estimate and its error for 7 + 7 + 8 + 11 parameters.
  EXPECT_EQ(figures, 5U + 2U * 33U);
}

TEST(Selftest, TellsWhatIsWrong) {
  const selftest_case sound{"Sound", "", {{"CL", 2.75, 2.76, 0.02}}, 0.5};
  const selftest_case off{"Off", "", {{"CL", 2.75, 2.78, 0.02}, {"V", 30.0, 30.0, 0.1}}, 0.5};
  const selftest_case absent{"Absent", "", {{"CL", 2.75, NAN, 0.02}}, 0.5};
  const selftest_case refused{"Refused", "at rest nowhere", {}, 0.5};
  EXPECT_TRUE(sound.passed());
  for (const selftest_case& c : {off, absent, refused}) EXPECT_FALSE(c.passed()) << c.title;

  const std::string text = varda::selftest_text({sound, off, absent, refused});
  EXPECT_THAT(text, HasSubstr("\n  CL                                     2.75        2.76"
                              "     +- 0.02\n"));
  EXPECT_THAT(text, HasSubstr("\n  CL                                     2.75        2.78"
                              "     +- 0.02  FAILED\n"));
  EXPECT_THAT(text, HasSubstr("  at rest nowhere\n"));
  EXPECT_THAT(text, testing::EndsWith("\nFAILED: 1 of 4 problems passed, 2.0 s\n"));
  EXPECT_THAT(varda::selftest_text({sound}),
              testing::EndsWith("\nPASSED: 1 of 1 problems passed, 0.5 s\n"));
  const std::string json = varda::selftest_json({sound, absent});
  EXPECT_THAT(json, HasSubstr("\"passed\": false,\n  \"problems\""));
  EXPECT_THAT(json, HasSubstr("\"found\": null"));
  EXPECT_THAT(varda::selftest_json({sound}), HasSubstr("\"passed\": true,\n  \"problems\""));
}

}  // namespace
