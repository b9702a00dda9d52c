// What the concurrent mode learns from the board's answers: the timeout after RFC 6298, the bytes the board
// has acknowledged, and the chunk size. Pure arithmetic, on time points and byte ranges of the test's own.
#include <gmock/gmock.h>

#include <vector>

#include "common/chunk_size.hpp"
#include "helpers/tallyvane/acknowledged_image.hpp"
#include "helpers/tallyvane/retransmission_timer.hpp"
#include "text.hpp"

namespace {

using namespace std::chrono_literals;
using Updater::Helpers::AcknowledgedImage;
using Updater::Testing::RowName;
using Timer = Updater::Helpers::RetransmissionTimer;

// The timer's history, a frame a step: sent (or a further answer to the last), expired, answered (or not).
constexpr Timer::Duration kNever{-1};
struct Step {
  Timer::Duration answeredAfter;
  int expiries = 0;
  bool sent = true;
};
struct History {
  std::string name;
  std::vector<Step> steps;
  Timer::Duration timeout;
};
void PrintTo(const History& row, std::ostream* os) { *os << row.name; }
const History kHistories[] = {
    {"NothingYet", {}, 1s},
    // The first answer: its round trip plus four times half of it.
    {"FirstAnswerFarBelowTheFloor", {{1ms}}, 50ms},
    {"FirstAnswerJustAboveTheFloor", {{17ms}}, 51ms},
    {"FirstAnswerJustBelowTheCeiling", {{3333ms}}, 9999ms},
    {"FirstAnswerAboveTheCeiling", {{4s}}, 10s},
    // Deviation 3/4 100 + 1/4 |200 - 400| = 125, then the average 7/8 200 + 1/8 400 = 225.
    {"LaterAnswer", {{200ms}, {400ms}}, 725ms},
    {"AnswersThatNeverVary", std::vector<Step>(40, {1s}), 1010ms},
    {"ExpiredThrice", {{kNever, 3}}, 8s},
    {"ExpiredPastTheCeiling", {{kNever, 5}}, 10s},
    {"ExpiredAtTheFloor", {{1ms}, {kNever, 1}}, 100ms},
    // Karn's rule: whether the answer is the original's or the copy's cannot be told.
    {"ExpiredFrameAnswered", {{300ms, 1}}, 2s},
    {"FreshAnswerAfterAnExpiredFrame", {{300ms, 2}, {200ms}}, 600ms},
    {"AnswerFromBeforeTheFrameLeft", {{-1ms}}, 1s},
    {"RepeatedAnswer", {{200ms}, {700ms, 0, /*sent=*/false}}, 600ms},
};
class ARetransmissionTimer : public testing::TestWithParam<History> {};

TEST_P(ARetransmissionTimer, EndsWithTheTimeoutItsAnswersAndExpiriesGive) {
  Timer timer;
  Timer::TimePoint sent{};
  for (const Step& step : GetParam().steps) {
    if (step.sent) timer.Sent(sent += 1h);
    for (int i = 0; i < step.expiries; ++i) timer.Expired();
    if (step.answeredAfter != kNever) timer.Answered(sent + step.answeredAfter);
  }
  EXPECT_EQ(timer.Timeout(), GetParam().timeout);
}
INSTANTIATE_TEST_SUITE_P(Histories, ARetransmissionTimer, testing::ValuesIn(kHistories), RowName<History>);

// Reports of byte ranges of a 100-byte image, after the board's update information. The first byte missing is
// what the board is sent again once it asks for nothing more.
struct Coverage {
  std::string name;
  std::vector<std::pair<std::int64_t, std::int64_t>> reports;  // from, count
  std::int64_t covered;
  std::int64_t firstMissing;
  std::uint16_t partial = 0;    // version of the board's partial download
  std::int64_t heldBlocks = 0;  // of 16 bytes
  std::uint16_t announced = 9;
};
void PrintTo(const Coverage& row, std::ostream* os) { *os << row.name; }
const Coverage kCoverages[] = {
    {"Adjacent", {{0, 40}, {40, 60}}, /*covered=*/100, /*firstMissing=*/100},
    {"Overlapping", {{0, 50}, {25, 50}}, /*covered=*/75, /*firstMissing=*/75},
    {"BridgingTwo", {{0, 10}, {20, 10}, {5, 20}}, /*covered=*/30, /*firstMissing=*/30},
    {"PastTheEnd", {{90, 20}}, /*covered=*/10, /*firstMissing=*/0},
    {"BeforeTheStart", {{-5, 10}}, /*covered=*/5, /*firstMissing=*/5},
    {"WhollyOutside", {{100, 10}, {-10, 10}}, /*covered=*/0, /*firstMissing=*/0},
    {"NoBytes", {{50, 0}, {60, -10}}, /*covered=*/0, /*firstMissing=*/0},
    {"AllButTheLastByte", {{0, 99}}, /*covered=*/99, /*firstMissing=*/99},
    {"TheLastByteAlone", {{0, 99}, {99, 1}}, /*covered=*/100, /*firstMissing=*/100},
    {"PartialDownloadOfTheAnnouncedVersion",
     {},
     /*covered=*/48,
     /*firstMissing=*/48,
     /*partial=*/9,
     /*heldBlocks=*/3},
    {"PartialDownloadOfAnotherVersion",
     {},
     /*covered=*/0,
     /*firstMissing=*/0,
     /*partial=*/8,
     /*heldBlocks=*/3},
    {"PartialDownloadLargerThanTheImage",
     {},
     /*covered=*/100,
     /*firstMissing=*/100,
     /*partial=*/9,
     /*heldBlocks=*/1000},
    {"PartialVersionZero",
     {},
     /*covered=*/0,
     /*firstMissing=*/0,
     /*partial=*/0,
     /*heldBlocks=*/3,
     /*announced=*/0},
};
class AnAcknowledgedImage : public testing::TestWithParam<Coverage> {
 protected:
  AnAcknowledgedImage() {
    const Coverage& c = GetParam();
    image_.AddPartialDownload(c.partial, c.announced, c.heldBlocks, 16);
    for (const auto& [from, count] : c.reports) image_.Add(from, count);
  }
  AcknowledgedImage image_{100};
};

TEST_P(AnAcknowledgedImage, CountsEachByteOnce) { EXPECT_EQ(image_.Covered(), GetParam().covered); }

TEST_P(AnAcknowledgedImage, LacksFirstTheByteAfterTheRangeFromItsStart) {
  EXPECT_EQ(image_.FirstMissing(), GetParam().firstMissing);
}

TEST_P(AnAcknowledgedImage, IsWholeWithItsLastByte) { EXPECT_EQ(image_.Whole(), GetParam().covered == 100); }
INSTANTIATE_TEST_SUITE_P(Reports, AnAcknowledgedImage, testing::ValuesIn(kCoverages), RowName<Coverage>);

// What is sent again after a late report: the first byte of each range is held, the byte at its end is not.
TEST(AnAcknowledgedImageWithAGap, HoldsTheBytesOfItsRangesAndNoneBetweenThem) {
  AcknowledgedImage image(100);
  image.Add(10, 20);
  image.Add(50, 10);
  EXPECT_FALSE(image.Holds(9));
  EXPECT_TRUE(image.Holds(10));
  EXPECT_TRUE(image.Holds(29));
  EXPECT_FALSE(image.Holds(30));
  EXPECT_TRUE(image.Holds(50));
  EXPECT_FALSE(image.Holds(60));
}

TEST(TheChunkSize, GrowsNoFurtherOnceAtSixtyFour) { EXPECT_EQ(Updater::ChunkSize::AfterDelivery(64), 64); }

}  // namespace
