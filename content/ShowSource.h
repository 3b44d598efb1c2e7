#pragma once

#include <memory>
#include <string>

#include "content/DemoArchive.h"

namespace brisvale {

// The show at `path`, as given on a command line: a directory holding demo.ini is read with
// DemoArchive::loadDirectory, anything else is a packed container for DemoArchive::load.
// A directory without demo.ini is refused at once, before anything under it is read:
// "No demo.ini in show directory: " + path. Errors are the loaders' one-line messages.
std::shared_ptr<DemoArchive> loadShow(const std::string& path);

} // namespace brisvale
