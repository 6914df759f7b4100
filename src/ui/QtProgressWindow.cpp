#include "ui/QtProgressWindow.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

QtProgressWindow::QtProgressWindow()
    : _heading(new QLabel(this)), _count(new QLabel(this)), _status(new QLabel(this)),
      _bar(new QProgressBar(this)), _cancel(new QPushButton(this)) {
    setObjectName("ProgressWindow");
    _heading->setObjectName("heading");
    _count->setObjectName("count");
    QFont bold = _heading->font();
    bold.setBold(true);
    _heading->setFont(bold);
    _heading->hide();
    _status->setObjectName("displayText");
    _bar->setObjectName("progressBar");
    _cancel->setObjectName("cancelButton");
    _bar->setTextVisible(false);
    _status->setMinimumWidth(420);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(_count);
    buttons->addStretch();
    buttons->addWidget(_cancel);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(_heading);
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

void QtProgressWindow::setHeading(const std::string& text) {
    _heading->setText(QString::fromStdString(text));
    _heading->setVisible(!text.empty());
}

void QtProgressWindow::setCount(const std::string& text) {
    _count->setText(QString::fromStdString(text));
}

void QtProgressWindow::closeEvent(QCloseEvent* event) {
    if (_closing) {
        event->accept();
        return;
    }
    event->ignore();
    if (_controller && _cancel->isVisible() && _cancel->isEnabled() &&
        !_controller->waitForCancelConfirmation() && !_controller->userCancelUpdate())
        _controller->cancelButtonClicked();
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
    // In the middle of the screen, also where no window manager places it.
    adjustSize();
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        QRect frame = frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        move(frame.topLeft());
    }
    show();
    raise();
}

void QtProgressWindow::closeWindow() {
    _closing = true;
    close();
    _closing = false;
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
