#pragma once

#include <string>
#include <vector>

// Every fixed location the patcher uses, in one table. Classes take their locations from
// the table they are handed, so tests can point them at folders of their own; the
// process-wide table is Linux's.
struct PlatformPaths {
    // Application folders and shared folders, as the directory tokens name them.
    std::string programFiles = "/opt";                      // [ProgramFiles]
    std::string orvelProgramFiles = "/opt";                 // [OrvelProgramFiles]
    std::string utilities = "/opt/Utilities";               // [Utilities]
    std::string library = "/usr/local/share";               // [Library]
    std::string common = "/usr/local/share";                // [Common]
    std::string sharedApplicationData = "/usr/local/share"; // [SharedApplicationData]
    std::string orvelCommon = "/usr/local/share/Orvel";     // [OrvelCommon]
    std::string fontsFolder = "/usr/local/share/fonts";     // [FontsFolder]
    std::string scriptingAdditions = "/usr/local/share/ScriptingAdditions";
    std::string sharedDocuments = "/home/Shared"; // [SharedDocuments]
    // [UserPreferences] = usersRoot/<user>/userPreferencesFolder
    std::string usersRoot = "/home";
    std::string userPreferencesFolder = ".config";

    // The patcher's own files.
    std::string patchHistoryFolder = "/var/opt/Orvel/Installers/";
    // Root's own: the lock, the record of the update in progress, its backups and journal.
    std::string patcherStateFolder = "/var/opt/Orvel/Patcher";
    std::string logFileInHome = ".local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log";
    std::string installerDataInHome =
        ".local/share/Orvel/Updater/Install/OrvelUpdaterInstallerData.plist";
    std::string workingFolderFormat = "/tmp/OrvelQX3/PatcherApp_%d";
    std::string returnCodeFile = "/tmp/OrvelQX3/retVal";
    std::string authTokenFile = "/tmp/authTokenData";
    std::string tmpVolume = "/tmp";
    std::string installationDatabase = "/var/opt/Orvel/zoth/zoth.db";
    // Which updates root applies: the public keys trusted to sign them, and the policy file
    // where developers allow unsigned patchers.
    std::string trustedKeysFolder = "/etc/orvel/trusted-keys.d";
    std::string patcherPolicyFile = "/etc/orvel/patcher.conf";

    // Processes and services.
    std::string pidFileFormat = "/var/run/%@.pid";
    std::string procRoot = "/proc";
    std::string systemdRunFolder = "/run/systemd/system";
    std::string initScriptsFolder = "/etc/init.d";
    std::string serviceProgram = "/usr/sbin/service";
    std::string systemctlProgram = "systemctl";

    // Folders that are never treated as part of an application and never removed when
    // emptied.
    std::vector<std::string> protectedFolders = {
        "/",     "/opt",   "/usr", "/usr/local", "/usr/local/share",
        "/home", "/media", "/mnt", "/var",       "/etc"};

    // The table of this machine (Linux).
    static const PlatformPaths& defaults() {
        static const PlatformPaths paths;
        return paths;
    }
};
