// See map_verify.h.
#include "map_verify.h"

#include <cstring>

#include "failure.h"
#include "image_check.h"
#include "mkperms_shm.h"
#include "persisted_copy.h"

namespace kvadmin {

std::string what_is_wrong(Image image) {
    const ImageReport report = check_image(image);
    if (report.sound()) return {};
    return fmt::format("{}{}", report.first_line(),
                       report.findings_total > 1
                           ? fmt::format(" (and {} more)", report.findings_total - 1)
                           : std::string());
}

void compare_with_persisted(Image image) {
    const MappedFile persisted(persisted_map_path());
    if (persisted.bytes().size() == image.size() &&
        std::memcmp(persisted.bytes().data(), image.data(), image.size()) == 0)
        return;
    fail(Exit::kFailure, "{} is not the image that was built; nothing was published",
         persisted_map_path());
}

// The load's own result says little: a document cut short still succeeds. So the image itself is
// asked.
void verify_built(Image image, const LintReport& pair, const ChildOutput& output) {
    const auto refuse = [&output](const std::string& what) {
        fail(Exit::kFailure, "the built image is not what was checked: {}{}; nothing was published",
             what, output.error_text.empty() ? "" : "; " + last_words(output.error_text));
    };
    if (image.size() != pair.image_size)
        refuse(fmt::format("{} bytes instead of {}", image.size(), pair.image_size));
    const std::string wrong = what_is_wrong(image);
    if (!wrong.empty()) refuse(wrong);
    kavrin_be_header_t header;
    std::memcpy(&header, image.data(), sizeof header);
    if (header.total_fselems != pair.counts.elements || header.total_aces != pair.counts.aces)
        refuse(fmt::format("{} elements and {} ACEs instead of {} and {}", header.total_fselems,
                           header.total_aces, pair.counts.elements, pair.counts.aces));
    if (header.generationnum != pair.identity.generation)
        refuse(fmt::format("generation {} instead of {}", header.generationnum,
                           pair.identity.generation));
    compare_with_persisted(image);
}

}  // namespace kvadmin
