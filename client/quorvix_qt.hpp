/**
 * @file
 * A watch for a Qt event loop: a unit of work starts with the first event that is delivered after the loop has waited,
 * and is done when the loop is about to wait again. A dialog's own loop counts as waiting too.
 *
 *     QApplication app(count, arguments);
 *     quorvix::client::Session session;
 *     quorvix::client::QtWatch watch("main", quorvix::client::Report::kSave);
 *     return app.exec();
 *
 * Made on the main thread after the application object, destroyed before it. Not by the loop's own signal for waking
 * up: on top of GLib, which is the rule on Linux, Qt gives that one only when the events were already delivered.
 */
#ifndef QUORVIX_QT_HPP
#define QUORVIX_QT_HPP

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <utility>

#include "quorvix.hpp"

namespace quorvix::client {

/** A watch of the application's event loop. On the main thread only, after the application object and before its end.
 */
class QtWatch : public QObject {
public:
    /**
     * Begins to watch.
     *
     * @param name    what kind of work this is, UTF-8; copied
     * @param report  whether a hang asks for a trace report
     */
    explicit QtWatch(const char* name, Report report = Report::kNone) : watch_(name, report) {
        QCoreApplication::instance()->installEventFilter(this);
        connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, this, [this] {
            isWorking_ = false;
            watch_.end();
        });
    }

protected:
    /**
     * Takes the first event after the loop has waited for the start of a unit of work.
     *
     * @return false: every event goes its way.
     */
    bool eventFilter(QObject*, QEvent*) override {
        if (!std::exchange(isWorking_, true)) watch_.begin();
        return false;
    }

private:
    Watch watch_;
    bool isWorking_ = false;
};

}  // namespace quorvix::client

#endif
