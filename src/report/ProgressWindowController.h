#pragma once

#include <atomic>
#include <functional>
#include <string>

class MainLoop;
class StringTable;

// What a progress window shows; the Qt window and the terminal line implement it. Every
// call arrives on the main thread.
class ProgressView {
public:
    virtual ~ProgressView() = default;

    virtual void setTitle(const std::string& title) = 0;
    virtual void setStatusLine(const std::string& text) = 0;
    // The product and its versions, above the status line.
    virtual void setHeading(const std::string& /*text*/) {}
    // How far the run is ("555 of 3,001"), beside the bar.
    virtual void setCount(const std::string& /*text*/) {}
    virtual void setBarIndeterminate(bool indeterminate) = 0;
    virtual void setBarRange(double minimum, double maximum) = 0;
    virtual void setBarValue(double value) = 0;
    virtual void setCancelButtonTitle(const std::string& title) = 0;
    virtual void setCancelButtonVisible(bool visible) = 0;
    virtual void setCancelButtonEnabled(bool enabled) = 0;
    virtual void showWindow() = 0;
    virtual void closeWindow() = 0;
    // Opens the cancel question attached to the window and returns at once; answered is
    // called on the main thread with the answer (1 for the default button).
    virtual void beginCancelSheet(const std::string& title, const std::string& message,
                                  const std::string& defaultButton,
                                  const std::string& alternateButton,
                                  std::function<void(int answer)> answered) = 0;
};

// The progress window of a run with a user: status line, bar and cancel button. The
// manifest processor calls it from the worker thread; display calls are passed to the main
// thread in order, and the two cancel flags are atomics read without waiting.
class ProgressWindowController {
public:
    ProgressWindowController(ProgressView& view, MainLoop& loop, const StringTable* strings);

    // Sets up the window: determinate bar from 0, title, "Processing", hidden cancel button.
    void awakeFromNib();
    void showWindow();
    void close();

    void setCancelButtonEnabled(bool enabled);
    void setIndeterminate(bool indeterminate);
    void setTextToDisplay(const std::string& text);
    void setProperties(int total);
    void setProgress(int value, const std::string& workingFile);
    // The product and the versions the update takes it from and to.
    void setProduct(const std::string& product, const std::string& fromVersion,
                    const std::string& toVersion);
    // The rollback has begun: the status line says so, and nothing can be cancelled.
    void setRollingBack();

    // The cancel button was pressed (main thread): asks whether to cancel.
    void cancelButtonClicked();
    // The answer to the cancel question (main thread): 1 continues, anything else cancels.
    void cancelSheetClosed(int returnCode);

    bool userCancelUpdate() const { return _cancelUpdate.load(); }
    bool waitForCancelConfirmation() const { return _waitForUser.load(); }

private:
    std::string localized(const std::string& key) const;
    void onMain(std::function<void()> task);

    ProgressView& _view;
    MainLoop& _loop;
    const StringTable* _strings;
    std::atomic<bool> _waitForUser{false};
    std::atomic<bool> _cancelUpdate{false};
    std::atomic<int> _total{0};
    std::atomic<bool> _rollingBack{false};
};
