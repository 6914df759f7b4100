#pragma once

#include "report/RunningApplicationHandler.h"

#include <QDialog>

class QLabel;
class QPushButton;
class QTextEdit;
class StringTable;

// Asks the user to quit the listed applications: Retry checks again, Cancel gives up.
class QtRunningAppsDialog final : public QDialog, public RunningAppsWindowController {
public:
    explicit QtRunningAppsDialog(const StringTable* strings);

    void resetRunningApplications(const std::string& names) override;
    void runModal() override;
    int getUserAction() const override { return _userAction; }

    QPushButton* retryButton() const { return _retry; }
    QPushButton* cancelButton() const { return _cancel; }
    QTextEdit* textView() const { return _text; }
    QLabel* headingText() const { return _heading; }

private:
    QLabel* _heading;
    QTextEdit* _text;
    QPushButton* _retry;
    QPushButton* _cancel;
    int _userAction = 0;
};
