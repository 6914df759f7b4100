#pragma once

#include "report/ProgressWindowController.h"

#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;

// The progress window: status line, determinate bar and cancel button. Pressing cancel
// asks the controller, which asks the user in a window-modal box.
class QtProgressWindow final : public QWidget, public ProgressView {
public:
    QtProgressWindow();

    // The controller that the cancel button reports to; not owned.
    void setController(ProgressWindowController* controller) { _controller = controller; }

    void setTitle(const std::string& title) override;
    void setStatusLine(const std::string& text) override;
    void setHeading(const std::string& text) override;
    void setCount(const std::string& text) override;
    void setBarIndeterminate(bool indeterminate) override;
    void setBarRange(double minimum, double maximum) override;
    void setBarValue(double value) override;
    void setCancelButtonTitle(const std::string& title) override;
    void setCancelButtonVisible(bool visible) override;
    void setCancelButtonEnabled(bool enabled) override;
    void showWindow() override;
    void closeWindow() override;
    void beginCancelSheet(const std::string& title, const std::string& message,
                          const std::string& defaultButton, const std::string& alternateButton,
                          std::function<void(int answer)> answered) override;

    QLabel* statusLabel() const { return _status; }
    QLabel* headingLabel() const { return _heading; }
    QLabel* countLabel() const { return _count; }
    QProgressBar* progressBar() const { return _bar; }
    QPushButton* cancelButton() const { return _cancel; }

protected:
    // Closing the window by hand asks the cancel question (or, when nothing can be
    // cancelled any more, does nothing): the run never goes on unseen.
    void closeEvent(QCloseEvent* event) override;

private:
    ProgressWindowController* _controller = nullptr;
    bool _closing = false; // closed by the run itself
    QLabel* _heading;
    QLabel* _count;
    QLabel* _status;
    QProgressBar* _bar;
    QPushButton* _cancel;
    double _maximum = 0;
};
