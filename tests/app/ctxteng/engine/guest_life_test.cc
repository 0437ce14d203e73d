#include "tests/app/ctxteng/engine/guest_life.h"

#include <random>

#include "tests/app/ctxteng/engine/engine_fixture.h"

namespace Ctxt::test {
namespace {

using testing::IsEmpty;

class GuestLifeTest : public EngineTest, public testing::WithParamInterface<int> {};

TEST_P(GuestLifeTest, AtRestTheEngineKnowsWhatTheGuestsSay) {
  constexpr int kSteps = 400;
  std::mt19937 random{static_cast<unsigned>(GetParam())};
  const auto number = [&random](int below) {
    return static_cast<int>(random() % static_cast<unsigned>(below));
  };
  GuestLife life(world, firewall, GuestLife::ClientOf(*idfw));
  Start();
  life.AddGuests();
  for (int step = 1; step <= kSteps; ++step) {
    life.Step(number);
    if (number(3) == 0) clock.Settle();
    if (step % 50 == 0) {
      EXPECT_THAT(life.Check([this] { clock.Settle(); }), IsEmpty());
    }
    if (step % 200 != 0) continue;
    Stop();
    EXPECT_THAT(core.guests().All(), IsEmpty());
    idfw->guests.clear();
    Start();
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, GuestLifeTest, testing::Range(1, 9));

}  // namespace
}  // namespace Ctxt::test
