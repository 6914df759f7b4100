#include "report/ProgressWindowController.h"

#include "base/Format.h"
#include "base/Path.h"
#include "base/StringTable.h"
#include "runtime/LoggerUtility.h"
#include "runtime/MainLoop.h"

#include <algorithm>

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
    _rollingBack = false;
    _total = 0;
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
    _total = total;
    onMain([this, total] {
        _view.setBarRange(0, static_cast<double>(total));
        _view.setCancelButtonVisible(true);
    });
}

namespace {

// A count with its thousands grouped ("3,001").
std::string Grouped(int number, const std::string& separator) {
    std::string digits = std::to_string(number);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0 && number >= 0; at -= 3)
        digits.insert(static_cast<size_t>(at), separator);
    return digits;
}

} // namespace

void ProgressWindowController::setProgress(int value, const std::string& workingFile) {
    const bool back = _rollingBack;
    const std::string line =
        localized(back ? "Undoing changes" : "Processing") + LastPathComponent(workingFile);
    // Forward, value counts the items done before this one; back, the items still to undo.
    const int total = _total;
    const int item = std::min(back ? value : value + 1, total);
    const std::string separator = localized("Thousands separator");
    const std::string count =
        total > 0 ? StringWithFormat(localized("Progress count"), Grouped(item, separator),
                                     Grouped(total, separator))
                  : std::string();
    onMain([this, line, value, count] {
        _view.setStatusLine(line);
        _view.setCount(count);
        _view.setBarValue(static_cast<double>(value));
    });
}

void ProgressWindowController::setProduct(const std::string& product,
                                          const std::string& fromVersion,
                                          const std::string& toVersion) {
    const std::string heading =
        StringWithFormat(localized("Progress heading"), product, fromVersion, toVersion);
    onMain([this, heading] { _view.setHeading(heading); });
}

void ProgressWindowController::setRollingBack() {
    _rollingBack = true;
    const std::string line = localized("Undoing changes");
    onMain([this, line] {
        _view.setStatusLine(line);
        _view.setCancelButtonEnabled(false);
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
