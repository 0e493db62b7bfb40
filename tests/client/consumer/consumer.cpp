#include <quorvix.hpp>

int main() {
    quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.socketDirectory = "/nonexistent";
    const quorvix::client::Session session(config);
    quorvix::client::Watch watch("main");
    const quorvix::client::Work work(watch);
    return session.error() == 0 && watch.handle()->slot.inactive == 0 ? 0 : 1;
}
