#include "ui/QtProgressWindow.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

QtProgressWindow::QtProgressWindow()
    : _status(new QLabel(this)), _bar(new QProgressBar(this)), _cancel(new QPushButton(this)) {
    setObjectName("ProgressWindow");
    _status->setObjectName("displayText");
    _bar->setObjectName("progressBar");
    _cancel->setObjectName("cancelButton");
    _bar->setTextVisible(false);
    _status->setMinimumWidth(420);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(_cancel);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(_status);
    layout->addWidget(_bar);
    layout->addLayout(buttons);

    connect(_cancel, &QPushButton::clicked, this, [this] {
        if (_controller)
            _controller->cancelButtonClicked();
    });
}

void QtProgressWindow::setTitle(const std::string& title) {
    setWindowTitle(QString::fromStdString(title));
}

void QtProgressWindow::setStatusLine(const std::string& text) {
    _status->setText(QString::fromStdString(text));
    _status->repaint();
}

void QtProgressWindow::setBarIndeterminate(bool indeterminate) {
    // A range of 0..0 is Qt's busy indicator.
    if (indeterminate)
        _bar->setRange(0, 0);
    else
        _bar->setRange(0, static_cast<int>(_maximum));
}

void QtProgressWindow::setBarRange(double minimum, double maximum) {
    _maximum = maximum;
    // An empty bar for a total of 0, rather than Qt's busy indicator.
    _bar->setRange(static_cast<int>(minimum), maximum > minimum ? static_cast<int>(maximum) : 1);
    _bar->setValue(static_cast<int>(minimum));
}

void QtProgressWindow::setBarValue(double value) {
    _bar->setValue(static_cast<int>(value));
    _bar->repaint();
}

void QtProgressWindow::setCancelButtonTitle(const std::string& title) {
    _cancel->setText(QString::fromStdString(title));
}

void QtProgressWindow::setCancelButtonVisible(bool visible) {
    _cancel->setVisible(visible);
}

void QtProgressWindow::setCancelButtonEnabled(bool enabled) {
    _cancel->setEnabled(enabled);
}

void QtProgressWindow::showWindow() {
    show();
    raise();
}

void QtProgressWindow::closeWindow() {
    close();
}

void QtProgressWindow::beginCancelSheet(const std::string& title, const std::string& message,
                                        const std::string& defaultButton,
                                        const std::string& alternateButton,
                                        std::function<void(int answer)> answered) {
    auto* box = new QMessageBox(this);
    box->setObjectName("CancelSheet");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    box->setIcon(QMessageBox::Warning);
    box->setWindowTitle(QString::fromStdString(title));
    box->setText(QString::fromStdString(title));
    box->setInformativeText(QString::fromStdString(message));
    QPushButton* proceed =
        box->addButton(QString::fromStdString(defaultButton), QMessageBox::AcceptRole);
    box->addButton(QString::fromStdString(alternateButton), QMessageBox::RejectRole);
    box->setDefaultButton(proceed);
    connect(box, &QMessageBox::finished, this,
            [box, proceed, answered] { answered(box->clickedButton() == proceed ? 1 : 0); });
    box->open();
}
