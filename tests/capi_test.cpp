// The C interfaces: every result code of every function.
#include <gtest/gtest.h>

#include <climits>

#include "KTRAGC.h"
#include "KTRVAD.h"

namespace {

TEST(CInterfaceTest, VadResultCodes) {
  int result = 9, info = 9;
  double pct = 9.0;
  const short block[160] = {};
  EXPECT_EQ(KTRVAD_Deinit(), 0);
  EXPECT_EQ(KTRVAD_GetResult(1, block, 320, &result, &pct, &info), -1);  // no analyzer
  EXPECT_EQ(KTRVAD_Init(22050), -2);
  EXPECT_EQ(KTRVAD_GetResult(0, nullptr, 0, &result, &pct, &info), -1);  // none left
  EXPECT_EQ(KTRVAD_Init(8000), 0);
  EXPECT_EQ(KTRVAD_GetResult(1, block, 320, nullptr, &pct, &info), -1);
  EXPECT_EQ(KTRVAD_GetResult(1, block, 320, &result, nullptr, &info), -1);
  EXPECT_EQ(KTRVAD_GetResult(1, block, 320, &result, &pct, nullptr), -1);
  EXPECT_EQ(KTRVAD_GetResult(1, nullptr, 2, &result, &pct, &info), -1);
  EXPECT_EQ(result, 9);  // nothing written on -1
  EXPECT_EQ(KTRVAD_GetResult(1, nullptr, 0, &result, &pct, &info), 0);
  EXPECT_EQ(result, KTRVAD_RESULT_NONE);
  // Each block carries one zero sample more: 1 + 158 samples so far.
  EXPECT_EQ(KTRVAD_GetResult(1, block, 314, &result, &pct, &info), 0);
  EXPECT_EQ(result, KTRVAD_RESULT_NONE);
  EXPECT_EQ(KTRVAD_GetResult(1, block, 1, &result, &pct, &info), 0);  // the odd byte completes it
  EXPECT_EQ(result, KTRVAD_RESULT_VOLUME);
  EXPECT_EQ(info, KTRVAD_VOLUME_OK);
  EXPECT_EQ(KTRVAD_GetResult(0, nullptr, 0, &result, &pct, &info), 0);
  EXPECT_EQ(result, KTRVAD_RESULT_NONE);
  EXPECT_EQ(KTRVAD_Deinit(), 0);
}

TEST(CInterfaceTest, AgcResultCodes) {
  long volume = 7;
  const short silence[800] = {};
  EXPECT_EQ(KTRAGC_Deinit(), 0);
  EXPECT_EQ(KTRAGC_ComputeGain(silence, 1600, 100, 255, &volume), -1);  // no gain control
  EXPECT_EQ(KTRAGC_Init(44100), -2);
  EXPECT_EQ(KTRAGC_Init(8000), 0);
  const struct { const void* data; unsigned size; long in, bound; } refused[] = {
      {silence, 1600, 100, 0},   {nullptr, 2, 100, 255}, {silence, 1600, 256, 255},
      {silence, 1600, -1, 255},  {silence, 1600, 1, -255}, {silence, 1600, -256, -255},
  };
  for (const auto& row : refused) {
    EXPECT_EQ(KTRAGC_ComputeGain(row.data, row.size, row.in, row.bound, &volume), -1) << row.in;
    EXPECT_EQ(volume, 7);
  }
  EXPECT_EQ(KTRAGC_ComputeGain(silence, 1600, 100, 255, nullptr), -1);
  // Unchanged: the host's own value; changed: the new gain times the bound, truncated.
  EXPECT_EQ(KTRAGC_ComputeGain(silence, 1596, 100, 255, &volume), 0);  // 799 samples with the extra
  EXPECT_EQ(volume, 100);
  EXPECT_EQ(KTRAGC_ComputeGain(silence, 2, 100, 255, &volume), 0);
  EXPECT_EQ(volume, static_cast<long>(static_cast<double>(100 / 255.0f * 1.15f * 1.15f * 1.15f * 1.15f) * 255.0));
  EXPECT_EQ(KTRAGC_ComputeGain(silence, 1600, -100, -255, &volume), 0);
  EXPECT_EQ(volume, static_cast<long>(static_cast<double>(100 / 255.0f * 1.15f * 1.15f * 1.15f * 1.15f) * -255.0));
  // Gain 1 on a bound float rounds upward stays on the bound.
  EXPECT_EQ(KTRAGC_ComputeGain(silence, 1600, LONG_MAX - 1, LONG_MAX, &volume), 0);
  EXPECT_EQ(volume, LONG_MAX - 1);
  EXPECT_EQ(KTRAGC_ComputeGain(silence, 1600, 0, LONG_MAX, &volume), 0);
  EXPECT_GT(volume, 0);
  // On a bound of 1 a clipped block lowers the volume to 0 (the gain to 0.85^2).
  short clipped[800];
  for (int i = 0; i < 800; ++i) clipped[i] = i / 4 % 2 ? 32767 : -32768;  // a 1 kHz square
  EXPECT_EQ(KTRAGC_Init(8000), 0);
  EXPECT_EQ(KTRAGC_ComputeGain(clipped, 1600, 1, 1, &volume), 0);
  EXPECT_EQ(volume, 0);
  // The product in double: 400/422 two steps down is 0.684834123f, times 422 288.9999999
  // (289 in float).
  EXPECT_EQ(KTRAGC_ComputeGain(clipped, 1600, 400, 422, &volume), 0);
  EXPECT_EQ(volume, 288);
  EXPECT_EQ(KTRAGC_Deinit(), 0);
}

}  // namespace
