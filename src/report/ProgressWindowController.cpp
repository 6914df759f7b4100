#include "report/ProgressWindowController.h"

#include "base/Path.h"
#include "base/StringTable.h"
#include "runtime/LoggerUtility.h"
#include "runtime/MainLoop.h"

ProgressWindowController::ProgressWindowController(ProgressView& view, MainLoop& loop,
                                                   const StringTable* strings)
    : _view(view), _loop(loop), _strings(strings) {}

std::string ProgressWindowController::localized(const std::string& key) const {
    return _strings ? _strings->localizedString(key) : key;
}

void ProgressWindowController::onMain(std::function<void()> task) {
    if (_loop.isMainThread())
        task();
    else
        _loop.post(std::move(task));
}

void ProgressWindowController::awakeFromNib() {
    _waitForUser = false;
    _cancelUpdate = false;
    const std::string title = localized("ProgressWindowTitle");
    const std::string processing = localized("Processing");
    const std::string cancel = localized("Cancel");
    onMain([this, title, processing, cancel] {
        _view.setBarIndeterminate(false);
        _view.setBarRange(0, 0);
        _view.setTitle(title);
        _view.setStatusLine(processing);
        _view.setCancelButtonVisible(false);
        _view.setCancelButtonTitle(cancel);
    });
}

void ProgressWindowController::showWindow() {
    onMain([this] { _view.showWindow(); });
}

void ProgressWindowController::close() {
    onMain([this] { _view.closeWindow(); });
}

void ProgressWindowController::setCancelButtonEnabled(bool enabled) {
    onMain([this, enabled] { _view.setCancelButtonEnabled(enabled); });
}

void ProgressWindowController::setIndeterminate(bool indeterminate) {
    onMain([this, indeterminate] { _view.setBarIndeterminate(indeterminate); });
}

void ProgressWindowController::setTextToDisplay(const std::string& text) {
    const std::string line = localized("Processing") + text;
    onMain([this, line] {
        _view.setStatusLine(line);
        _view.setCancelButtonVisible(true);
    });
}

void ProgressWindowController::setProperties(int total) {
    onMain([this, total] {
        _view.setBarRange(0, static_cast<double>(total));
        _view.setCancelButtonVisible(true);
    });
}

void ProgressWindowController::setProgress(int value, const std::string& workingFile) {
    const std::string line = localized("Processing") + LastPathComponent(workingFile);
    onMain([this, line, value] {
        _view.setStatusLine(line);
        _view.setBarValue(static_cast<double>(value));
    });
}

void ProgressWindowController::cancelButtonClicked() {
    _waitForUser = true;
    _view.beginCancelSheet(localized("Cancel title"), localized("Cancel message"),
                           localized("Continue"), localized("Cancel"),
                           [this](int answer) { cancelSheetClosed(answer); });
}

void ProgressWindowController::cancelSheetClosed(int returnCode) {
    if (returnCode == 1) {
        NSLevelledLog(3, "Proceed with the update ...");
    } else {
        NSLevelledLog(3, "User wish to cancel the update.");
        _cancelUpdate = true;
    }
    _waitForUser = false;
}
