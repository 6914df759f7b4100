#include "report/UserInterface.h"

#include "runtime/LoggerUtility.h"

int HeadlessUserInterface::runAlertPanel(AlertStyle style, const std::string& title,
                                         const std::string& message,
                                         const std::string& defaultButton,
                                         const std::string& /*alternateButton*/,
                                         const std::string& /*otherButton*/) {
    const char* kind = style == AlertStyle::Critical  ? "critical"
                       : style == AlertStyle::Warning ? "warning"
                                                      : "informational";
    NSLog(StringWithFormat("Alert (%@) title: %@", kind, title));
    NSLog(StringWithFormat("Alert (%@) text: %@", kind, message));
    NSLog(StringWithFormat("Alert (%@) answered with button: %@", kind, defaultButton));
    return kAlertDefaultReturn;
}
