// Machine and operating-system information.
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string_view>

#include <apr_file_io.h>
#include <apr_pools.h>
#include <apr_xml.h>

#include "sys/mach_internal.hpp"
#include "vepra_error.h"
#include "vepra_mach.h"
#include "vepra_str.h"

namespace vepra::detail {
namespace {

constexpr std::array<const char *, 2> kVersionFiles = {
    "/System/Library/CoreServices/SystemVersion.plist",
    "/System/Library/CoreServices/ServerVersion.plist",
};

struct release_name {
  std::string_view prefix;
  const char *format;
};

// First matching prefix wins; the comparison is of leading characters only,
// so "10.16" is taken by "10.1".
constexpr release_name kReleases[] = {
    {"14.", "macOS %s Sonoma"},        {"13.", "macOS %s Ventura"},
    {"12.", "macOS %s Monterey"},      {"11.", "macOS %s Big Sur"},
    {"10.15", "macOS %s Catalina"},    {"10.14", "macOS %s Mojave"},
    {"10.13", "macOS %s High Sierra"}, {"10.12", "macOS %s Sierra"},
    {"10.11", "OS X %s El Capitan"},   {"10.10", "OS X %s Yosemite"},
    {"10.9", "OS X %s Mavericks"},     {"10.8", "OS X %s Mountain Lion"},
    {"10.7", "Mac OS X %s Lion"},      {"10.6", "Mac OS X %s Snow Leopard"},
    {"10.5", "Mac OS X %s Leopard"},   {"10.4", "Mac OS X %s Tiger"},
    {"10.3", "Mac OS X %s Panther"},   {"10.2", "Mac OS X %s Jaguar"},
    {"10.1", "Mac OS X %s Puma"},      {"10.0", "Mac OS X %s Cheetah"},
};

const char *release_format(std::string_view version) noexcept {
  for (const release_name &r : kReleases) {
    if (version.starts_with(r.prefix)) return r.format;
  }
  return "macOS %s";
}

const char *first_text(const apr_xml_elem *e) noexcept {
  return e->first_cdata.first != nullptr ? e->first_cdata.first->text : nullptr;
}

bool named(const apr_xml_elem *e, const char *name) noexcept {
  return e->name != nullptr && std::strcmp(e->name, name) == 0;
}

// Depth first, an element before its children: the first "key" element
// whose text is "ProductVersion", walked through the parent links.
const apr_xml_elem *find_version_key(const apr_xml_elem *root) noexcept {
  const apr_xml_elem *e = root;
  while (e != nullptr) {
    const char *text = first_text(e);
    if (named(e, "key") && text != nullptr && std::strcmp(text, "ProductVersion") == 0) {
      return e;
    }
    if (e->first_child != nullptr) {
      e = e->first_child;
      continue;
    }
    while (e != nullptr && e != root && e->next == nullptr) e = e->parent;
    e = e == nullptr || e == root ? nullptr : e->next;
  }
  return nullptr;
}

// The product version from the first version file that opens, written
// into buf with its release name. False when there is none.
bool write_version(char *buf, int size, std::span<const char *const> paths) noexcept {
  if (vepra_pool == nullptr) return false;
  apr_pool_t *scratch = nullptr;
  if (apr_pool_create(&scratch, vepra_pool) != APR_SUCCESS) return false;
  bool found = false;
  apr_file_t *file = nullptr;
  for (const char *path : paths) {
    if (apr_file_open(&file, path, APR_FOPEN_READ, APR_FPROT_OS_DEFAULT, scratch) ==
        APR_SUCCESS) {
      break;
    }
    file = nullptr;
  }
  if (file != nullptr) {
    apr_xml_parser *parser = nullptr;
    apr_xml_doc *doc = nullptr;
    if (apr_xml_parse_file(scratch, &parser, &doc, file, 2000) == APR_SUCCESS &&
        doc != nullptr) {
      const apr_xml_elem *key = find_version_key(doc->root);
      const apr_xml_elem *value = key != nullptr ? key->next : nullptr;
      const char *version = value != nullptr && named(value, "string") ? first_text(value)
                                                                      : nullptr;
      if (version != nullptr) {
        vepra_str_snprintf(buf, static_cast<size_t>(size), release_format(version), version);
        found = true;
      }
    }
    apr_file_close(file);
  }
  apr_pool_destroy(scratch);
  return found;
}

}  // namespace

char *mach_os_name_from(char *buf, int size, std::span<const char *const> paths) noexcept {
  if (buf == nullptr || size <= 0) return buf;
  const auto n = static_cast<size_t>(size);
  std::memset(buf, 0, n);
  const bool found = write_version(buf, size, paths);
  struct utsname u;
  if (uname(&u) != 0) {
    if (!found) vepra_str_strlcat(buf, "Unknown macOS-compatible OS", n);
    return buf;
  }
  if (found) vepra_str_strlcat(buf, " (", n);
  for (const char *part : {static_cast<const char *>(u.sysname), " ",
                           static_cast<const char *>(u.release), " ",
                           static_cast<const char *>(u.machine)}) {
    vepra_str_strlcat(buf, part, n);
  }
  if (found) vepra_str_strlcat(buf, ")", n);
  return buf;
}

int mach_os_family(std::string_view name) noexcept {
  if (name == "Linux") return VEPRA_MACH_OS_LINUX;
  if (name == "Darwin") return VEPRA_MACH_OS_DARWIN;
  if (name == "FreeBSD") return VEPRA_MACH_OS_FREEBSD;
  return VEPRA_MACH_OS_OTHER;
}

}  // namespace vepra::detail

extern "C" {

int vepra_mach_os(void) noexcept {
  struct utsname u;
  if (uname(&u) != 0) return VEPRA_MACH_OS_OTHER;
  return vepra::detail::mach_os_family(u.sysname);
}

uint32_t vepra_mach_os_cpu_num(void) noexcept {
  const long n = sysconf(_SC_NPROCESSORS_CONF);
  return n == -1 ? 1u : static_cast<uint32_t>(n);
}

char *vepra_mach_os_name(char *buf, int size) noexcept {
  return vepra::detail::mach_os_name_from(buf, size, vepra::detail::kVersionFiles);
}

double vepra_mach_physmem(void) noexcept {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long page_size = sysconf(_SC_PAGESIZE);
  if (pages == -1 || page_size == -1) return 0.0;
  return static_cast<double>(pages) * static_cast<double>(page_size) * 9.5367431640625e-07;
}

pid_t vepra_getpid(void) noexcept { return getpid(); }

}  // extern "C"
