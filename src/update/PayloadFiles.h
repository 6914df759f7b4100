#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <time.h>

// The files of the unpacked payload that are held in memory instead of being written to
// the working folder: new files that entries only copy into the installation. Such a file is
// then written once, straight into its folder in the installation, from these bytes, and
// its checksum is worked out once, from memory, while the payload is unpacked. A held file
// is known by the path it would have in the working folder, so the file operations name it
// as any other; FileManager::copyItem copies from here what is held.
class PayloadFiles {
public:
    struct File {
        std::shared_ptr<const uint8_t[]> bytes;
        size_t size = 0;
        mode_t mode = 0;
        timespec times[2] = {}; // access and modification, as the archive gives them
        std::string checksum;   // MD5, lower-case hexadecimal
    };

    // All the payload may hold in memory at once; the files beyond it are written to the
    // working folder as before.
    static constexpr uint64_t kHeldBytes = uint64_t{256} << 20;

    // The file held for path, or nothing.
    [[nodiscard]] static std::shared_ptr<const File> find(const std::string& path);
    // Holds file for path, in place of one held there before.
    static void hold(const std::string& path, File file);
    // Lets go of the file held for path, and of every file held below folder.
    static void forget(const std::string& path);
    static void forgetBelow(const std::string& folder);
    // The bytes held now.
    [[nodiscard]] static uint64_t heldBytes();
};
