#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;

class ActivationTrackingNotBuiltIn : public DaemonWorld {};

TEST_F(ActivationTrackingNotBuiltIn, IsSaidForEachCommand) {
    startWithHangTracing();
    const auto client = connect(412);
    const auto message = [](std::int64_t command) {
        return sim::SimMessage{}.int64("command", command).int64("pid", 777).string("bundle-id", "com.norvane.mail");
    };
    send(*client, message(4));
    send(*client, message(5));
    EXPECT_THAT(device.log.texts("platform"),
                ElementsAre("Activation tracking is not built in: begin of com.norvane.mail[777] is ignored",
                            "Activation tracking is not built in: end of com.norvane.mail[777] is ignored"));
}

}  // namespace
}  // namespace quorvix::test
