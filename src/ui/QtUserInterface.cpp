#include "ui/QtUserInterface.h"

#include <QMessageBox>
#include <QPushButton>

int QtUserInterface::runAlertPanel(AlertStyle style, const std::string& title,
                                   const std::string& message, const std::string& defaultButton,
                                   const std::string& alternateButton,
                                   const std::string& otherButton) {
    QMessageBox box;
    box.setIcon(style == AlertStyle::Critical  ? QMessageBox::Critical
                : style == AlertStyle::Warning ? QMessageBox::Warning
                                               : QMessageBox::Information);
    box.setWindowTitle(QString::fromStdString(title));
    box.setText(QString::fromStdString(title));
    box.setInformativeText(QString::fromStdString(message));
    QPushButton* defaultPush =
        box.addButton(QString::fromStdString(defaultButton), QMessageBox::AcceptRole);
    QPushButton* alternatePush = nullptr;
    QPushButton* otherPush = nullptr;
    if (!alternateButton.empty())
        alternatePush =
            box.addButton(QString::fromStdString(alternateButton), QMessageBox::RejectRole);
    if (!otherButton.empty())
        otherPush = box.addButton(QString::fromStdString(otherButton), QMessageBox::ActionRole);
    box.setDefaultButton(defaultPush);
    box.setObjectName("OrvelAlert");
    box.exec();
    const auto* clicked = box.clickedButton();
    if (clicked == defaultPush)
        return kAlertDefaultReturn;
    if (alternatePush && clicked == alternatePush)
        return kAlertAlternateReturn;
    if (otherPush && clicked == otherPush)
        return kAlertOtherReturn;
    // Closed without a button (Escape with a single button): the only answer there is.
    return alternatePush ? kAlertAlternateReturn : kAlertDefaultReturn;
}
