// The adapter between the service's picture record and the chip vendor's, over a media library of this test.
#include <gtest/gtest.h>
#include <mpi_sys.h>
#include <mpi_vpss.h>

#include <cstring>

#include "platform/hi_mpi.h"

namespace {

constexpr VIDEO_FRAME_INFO_S kPicture = {
    {1280, 720, 4, PIXEL_FORMAT_YUV_SEMIPLANAR_420, {0x82000000, 0x820E1000, 1}, {}, {1296, 1312, 2}, 77}, 5};
constexpr int kEmpty = static_cast<int>(0xA007800E);

VIDEO_FRAME_INFO_S given_back;

}  // namespace

int HI_MPI_VPSS_GetChnFrame(int group, int channel, VIDEO_FRAME_INFO_S* picture, int limit) {
  if (limit != -1) return kEmpty;
  EXPECT_TRUE(group == 0 && channel == 3);
  *picture = kPicture;
  return HI_SUCCESS;
}
int HI_MPI_VPSS_ReleaseChnFrame(int, int channel, VIDEO_FRAME_INFO_S* picture) {
  given_back = *picture;
  return channel;
}

TEST(VendorAdapter, TranslatesAPictureAndGivesTheVendorsOwnRecordBack) {
  VpssPicture picture = {};
  ASSERT_EQ(HI_MPI_VPSS_GetChnFrame(0, 3, &picture, -1), 0);
  EXPECT_EQ(picture.width, 1280u);
  EXPECT_EQ(picture.height, 720u);
  EXPECT_EQ(picture.pixel_format, u32{kVpssYuv420SemiPlanar});
  EXPECT_EQ(picture.phys_addr[0], 0x82000000u);
  EXPECT_EQ(picture.phys_addr[1], 0x820E1000u);
  EXPECT_EQ(picture.stride[0], 1296u);
  EXPECT_EQ(picture.stride[1], 1312u);

  EXPECT_EQ(HI_MPI_VPSS_ReleaseChnFrame(0, 3, &picture), 3);
  EXPECT_EQ(given_back.u32PoolId, 5u);
  EXPECT_EQ(given_back.stVFrame.u64pts, 77u);
}

TEST(VendorAdapter, HandsErrorCodesOn) {
  VpssPicture picture = {};
  picture.width = 1;
  EXPECT_EQ(HI_MPI_VPSS_GetChnFrame(0, 3, &picture, 20), kEmpty);
  EXPECT_EQ(picture.width, 1u);
}
