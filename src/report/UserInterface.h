#pragma once

#include <string>

// What the core asks of the user, whichever front end answers: the Qt windows, the
// terminal, or nobody (the headless front end answers with the default button).

enum class AlertStyle { Informational, Warning, Critical };

// Answers of an alert panel, with the values the panel functions return.
enum AlertResult : int {
    kAlertDefaultReturn = 1,
    kAlertAlternateReturn = 0,
    kAlertOtherReturn = -1,
    kAlertErrorReturn = -2,
};

class UserInterface {
public:
    virtual ~UserInterface() = default;

    // A modal alert. Empty button titles mean no such button. Returns an AlertResult.
    virtual int runAlertPanel(AlertStyle style, const std::string& title,
                              const std::string& message, const std::string& defaultButton,
                              const std::string& alternateButton = {},
                              const std::string& otherButton = {}) = 0;
};

// Writes every alert to the log (always, whatever the level) and answers with the default
// button, so runs without a user never wait.
class HeadlessUserInterface final : public UserInterface {
public:
    int runAlertPanel(AlertStyle style, const std::string& title, const std::string& message,
                      const std::string& defaultButton, const std::string& alternateButton = {},
                      const std::string& otherButton = {}) override;
};
