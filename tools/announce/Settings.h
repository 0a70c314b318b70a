#pragma once

#include "Announcement.h"
#include "Options.h"

namespace orvx::announce {

AnnouncementSettings settingsFrom(
    const RegistryOptions& options,
    const std::shared_ptr<communication::HttpCredentials>& credentials);

}  // namespace orvx::announce
