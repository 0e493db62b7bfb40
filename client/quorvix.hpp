/**
 * @file
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

/** The library for C++. */
namespace quorvix::client {

/** Whether a hang asks for a trace report. */
enum class Report {
    kNone, /**< it is logged and counted only */
    kSave  /**< it does */
};

/** A watch of the thread that makes it. Movable: a moved-from watch may only be destroyed or assigned to. */
class Watch {
public:
    /**
     * Opens the watch, for the calling thread; quorvix_watch_open() says more.
     *
     * @param name    what kind of work this is, UTF-8; copied
     * @param report  whether a hang asks for a trace report
     */
    explicit Watch(const char* name, Report report = Report::kNone) noexcept
        : watch_(quorvix_watch_open(name, report == Report::kSave ? QUORVIX_WATCH_SAVE_REPORT : 0u)) {}
    /** @copydoc Watch(const char*, Report) */
    explicit Watch(const std::string& name, Report report = Report::kNone) noexcept : Watch(name.c_str(), report) {}
    /** Ends the watch, also in the middle of a unit of work. */
    ~Watch() { quorvix_watch_close(watch_); }

    /**
     * Takes the watch over.
     *
     * @param other  may only be destroyed or assigned to from here on
     */
    Watch(Watch&& other) noexcept : watch_(std::exchange(other.watch_, nullptr)) {}
    /**
     * Takes the watch over.
     *
     * @param other  gets this one's watch, and ends it when it is destroyed
     * @return this watch.
     */
    Watch& operator=(Watch&& other) noexcept {
        std::swap(watch_, other.watch_);
        return *this;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /** A unit of work starts now: quorvix_begin(). On the watch's own thread. */
    void begin() noexcept { quorvix_begin(watch_); }
    /** The unit of work is done: quorvix_end(). On the watch's own thread. */
    void end() noexcept { quorvix_end(watch_); }
    /** From now on the calling thread's. Between two units of work only. */
    void adopt() noexcept { quorvix_watch_adopt(watch_); }

    /**
     * For the functions of C.
     *
     * @return the watch, which stays this object's.
     */
    quorvix_watch* handle() noexcept { return watch_; }

private:
    quorvix_watch* watch_;
};

/** One unit of work, from construction to destruction; both on the watch's own thread. */
class Work {
public:
    /**
     * The unit starts.
     *
     * @param watch  outlives this
     */
    explicit Work(Watch& watch) noexcept : watch_(watch) { watch_.begin(); }
    /** The unit is done. */
    ~Work() { watch_.end(); }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

private:
    Watch& watch_;
};

/** The library started for as long as this lives. */
class Session {
public:
    /** Starts it with the defaults. */
    Session() noexcept : error_(quorvix_start(nullptr)) {}
    /**
     * Starts it.
     *
     * @param config  what differs from the defaults; read during the call only
     */
    explicit Session(const quorvix_config& config) noexcept : error_(quorvix_start(&config)) {}
    /** Stops the library where this started it: quorvix_stop(). */
    ~Session() {
        if (error_ == 0) quorvix_stop();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /**
     * Whether it was started.
     *
     * @return what quorvix_start() returned: 0, or an errno value.
     */
    int error() const noexcept { return error_; }

private:
    int error_;
};

}  // namespace quorvix::client

#endif
