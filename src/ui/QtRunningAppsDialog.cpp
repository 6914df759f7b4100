#include "ui/QtRunningAppsDialog.h"

#include "base/StringTable.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QTextEdit>
#include <QVBoxLayout>

namespace {
QString Text(const StringTable* strings, const char* key) {
    return QString::fromStdString(strings ? strings->localizedString(key) : key);
}
} // namespace

QtRunningAppsDialog::QtRunningAppsDialog(const StringTable* strings)
    : _heading(new QLabel(this)), _text(new QTextEdit(this)), _retry(new QPushButton(this)),
      _cancel(new QPushButton(this)) {
    setObjectName("RunningAppsWindow");
    setModal(true);
    setWindowTitle(Text(strings, "ProgressWindowTitle"));
    _heading->setObjectName("headingText");
    _heading->setWordWrap(true);
    _heading->setText(Text(strings, "RunningAppsMessage"));
    _text->setObjectName("textView");
    _text->setReadOnly(true);
    _retry->setObjectName("retryButton");
    _retry->setText(Text(strings, "Retry"));
    _retry->setDefault(true);
    _cancel->setObjectName("cancelButton");
    _cancel->setText(Text(strings, "Cancel"));

    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(_cancel);
    buttons->addWidget(_retry);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(_heading);
    layout->addWidget(_text);
    layout->addLayout(buttons);

    connect(_retry, &QPushButton::clicked, this, [this] {
        _userAction = 1;
        done(1);
    });
    connect(_cancel, &QPushButton::clicked, this, [this] {
        _userAction = 2;
        done(2);
    });
    // Closing the window is a cancel.
    connect(this, &QDialog::rejected, this, [this] {
        if (_userAction == 0)
            _userAction = 2;
    });
}

void QtRunningAppsDialog::resetRunningApplications(const std::string& names) {
    _text->setPlainText(QString::fromStdString(names));
    _userAction = 0;
}

void QtRunningAppsDialog::runModal() {
    exec();
}
