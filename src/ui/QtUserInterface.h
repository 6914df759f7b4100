#pragma once

#include "report/UserInterface.h"

// Alerts as Qt message boxes, modal to the application.
class QtUserInterface final : public UserInterface {
public:
    int runAlertPanel(AlertStyle style, const std::string& title, const std::string& message,
                      const std::string& defaultButton, const std::string& alternateButton = {},
                      const std::string& otherButton = {}) override;
};
