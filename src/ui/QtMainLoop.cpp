#include "ui/QtMainLoop.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

void QtMainLoop::post(std::function<void()> task) {
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(task), Qt::QueuedConnection);
}

void QtMainLoop::runOnMainThreadAndWait(std::function<void()> task) {
    if (isMainThread()) {
        task();
        return;
    }
    // An event loop that has been told to end runs nothing more.
    if (_terminated)
        return;
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(task),
                              Qt::BlockingQueuedConnection);
}

void QtMainLoop::terminate(int exitCode) {
    _terminated = true;
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [exitCode] { QCoreApplication::exit(exitCode); },
        Qt::QueuedConnection);
}

bool QtMainLoop::isMainThread() const {
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}
