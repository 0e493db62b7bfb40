// A Qt app that freezes for twelve seconds, two seconds after its start.
#include <QCoreApplication>
#include <QThread>
#include <QTimer>
#include <quorvix_qt.hpp>

int main(int count, char** arguments) {
    QCoreApplication app(count, arguments);
    quorvix::client::Session session;
    quorvix::client::QtWatch watch("main", quorvix::client::Report::kSave);

    QTimer::singleShot(2000, [] { QThread::sleep(12); });
    return QCoreApplication::exec();
}
