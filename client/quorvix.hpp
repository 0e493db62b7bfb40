/*
 * libquorvix for C++: a watch that closes itself, and a unit of work that is a scope.
 *
 *     quorvix::client::Watch watch("main", quorvix::client::Report::kSave);
 *     ...
 *     quorvix::client::Work work(watch);   // until the end of the block
 *
 * Nothing here throws. The rules of quorvix.h stand, those about threads above all.
 */
#ifndef QUORVIX_HPP
#define QUORVIX_HPP

#include <string>
#include <utility>

#include "quorvix.h"

namespace quorvix::client {

/* Whether a hang asks for a trace report. */
enum class Report { kNone, kSave };

/* A watch of the thread that makes it. Movable: a moved-from watch may only be destroyed or assigned to. */
class Watch {
public:
    explicit Watch(const char* name, Report report = Report::kNone) noexcept
        : watch_(quorvix_watch_open(name, report == Report::kSave ? QUORVIX_WATCH_SAVE_REPORT : 0u)) {}
    explicit Watch(const std::string& name, Report report = Report::kNone) noexcept : Watch(name.c_str(), report) {}
    ~Watch() { quorvix_watch_close(watch_); }

    Watch(Watch&& other) noexcept : watch_(std::exchange(other.watch_, nullptr)) {}
    Watch& operator=(Watch&& other) noexcept {
        std::swap(watch_, other.watch_);
        return *this;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    void begin() noexcept { quorvix_begin(watch_); }
    void end() noexcept { quorvix_end(watch_); }
    /* From now on the calling thread's. Between two units of work only. */
    void adopt() noexcept { quorvix_watch_adopt(watch_); }

    quorvix_watch* handle() noexcept { return watch_; }

private:
    quorvix_watch* watch_;
};

/* One unit of work, from construction to destruction. */
class Work {
public:
    explicit Work(Watch& watch) noexcept : watch_(watch) { watch_.begin(); }
    ~Work() { watch_.end(); }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

private:
    Watch& watch_;
};

/* The library started for as long as this lives. error() is what quorvix_start returned. */
class Session {
public:
    Session() noexcept : error_(quorvix_start(nullptr)) {}
    explicit Session(const quorvix_config& config) noexcept : error_(quorvix_start(&config)) {}
    ~Session() {
        if (error_ == 0) quorvix_stop();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    int error() const noexcept { return error_; }

private:
    int error_;
};

}  // namespace quorvix::client

#endif
