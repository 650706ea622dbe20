#include "task/FileFilter.h"

#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "engine/ArchiveKinds.h"

namespace agent {

namespace {

// The endings of programs, libraries, scripts and documents. Other files are known by their first bytes.
constexpr std::string_view kEndings[] = {
    "exe",  "dll",  "sys",  "com", "scr",      "msi",   "bat",  "cmd",  "ps1",     "vbs",     "vbe",
    "js",   "jse",  "wsf",  "hta", "lnk",      "so",    "ko",   "o",    "a",       "elf",     "bin",
    "run",  "deb",  "rpm",  "apk", "appimage", "class", "jar",  "pyc",  "py",      "sh",      "bash",
    "csh",  "zsh",  "pl",   "rb",  "php",      "lua",   "tcl",  "awk",  "desktop", "service", "timer",
    "doc",  "docx", "docm", "dot", "dotm",     "xls",   "xlsx", "xlsm", "xlsb",    "xlt",     "ppt",
    "pptx", "pptm", "pps",  "rtf", "odt",      "ods",   "odp",  "pdf",  "htm",     "html",    "mht",
    "xml",  "swf",  "chm",  "eml", "msg",      "one",   "svg",  "wps",  "et",
};

constexpr std::string_view kBeginnings[] = {
    "\177ELF",
    "MZ",
    "#!",
    "%PDF",
    "{\\rtf",
    "\xd0\xcf\x11\xe0",
    "\xca\xfe\xba\xbe",
    "\xfe\xed\xfa",
    "\xcf\xfa\xed\xfe",
    "\xce\xfa\xed\xfe",
    "<?php",
    "<html",
    "<!DOCTYPE",
};

bool startsAsProgram(int fd) {
  char text[16];
  const ssize_t length = pread(fd, text, sizeof text, 0);
  const std::string_view head(text, length > 0 ? static_cast<std::size_t>(length) : 0);
  return std::any_of(std::begin(kBeginnings), std::end(kBeginnings), [head](std::string_view beginning) {
    return head.substr(0, beginning.size()) == beginning;
  });
}

}  // namespace

std::string endingOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  const std::size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
    return {};
  }
  std::string ending = path.substr(dot + 1);
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return ending;
}

platform::Expected<void> checkIncluded(const ScanPlan& plan, const EncounteredFile& file) {
  if (plan.skipBytes > 0 && static_cast<std::uint64_t>(file.status.st_size) > plan.skipBytes) {
    return platform::failure("larger than the " + std::to_string(plan.skipBytes >> 20) +
                             " MB of the settings");
  }
  if (!plan.programsOnly || (file.status.st_mode & 0111) != 0) {
    return {};
  }
  const std::string ending = endingOf(file.path);
  if (std::find(std::begin(kEndings), std::end(kEndings), ending) == std::end(kEndings) &&
      !(plan.options.archives && isEndingAmong(ending, plan.options.archiveFormats)) &&
      !startsAsProgram(file.fd.get())) {
    return platform::failure("neither a program nor a document");
  }
  return {};
}

}  // namespace agent
