#include "caches/places.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <span>
#include <string_view>

namespace kelvane::caches {
namespace {

using Rule = Place::Rule;

struct WrittenPlace {
  const char* path;
  Rule rule;
};

std::vector<Place> places(std::initializer_list<WrittenPlace> written) {
  std::vector<Place> result;
  for (const WrittenPlace& place : written) result.push_back({namesOf(place.path), place.rule});
  return result;
}

std::vector<Names> paths(std::initializer_list<const char*> written) {
  std::vector<Names> result;
  for (const char* path : written) result.push_back(namesOf(path));
  return result;
}

std::string lowerCase(std::string text) {
  // ASCII only: the case rules of other letters depend on the language.
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// All in lower case.

// The names of xdg-user-dirs in English and some other languages; ~/.config/user-dirs.dirs has those of all
// others (personalDirectories).
constexpr std::array<std::string_view, 29> personal_names{
    "desktop",      "documents", "downloads", "music",     "pictures",     "public",
    "templates",    "videos",    "bilder",    "dokumente", "schreibtisch", "musik",
    "vorlagen",     "bureau",    "images",    "musique",   "documentos",   "escritorio",
    "descargas",    "documenti", "immagini",  "scrivania", "scaricati",    "documenten",
    "afbeeldingen", "dokumenty", "obrazy",    "pulpit",    "pobrane"};

constexpr auto forbidden_names = std::to_array<std::string_view>({
    // keys and secrets
    ".ssh",
    ".gnupg",
    ".pki",
    ".password-store",
    "keyrings",
    ".aws",
    ".azure",
    ".kube",
    ".docker",
    // profiles of browsers, and what web applications store
    ".mozilla",
    "service worker",
    "file system",
    "indexeddb",
    "local storage",
    "session storage",
    "databases",
    "sync data",
    "local extension settings",
    // mail
    ".thunderbird",
    ".icedove",
    "mail",
    "maildir",
    ".maildir",
    ".mail",
    "evolution",
    "akonadi",
    // what people made with a program
    "trash",
    "workspacestorage",
    "history",
    "localhistory",
    "backups",
    ".kelvane-keep",
    // toolchains, virtual machines, volumes of containers
    ".rustup",
    "virtualbox vms",
    "vmware",
    "libvirt",
    ".vagrant",
    ".vagrant.d",
    "avd",
    "volumes",
    "containers",
    "docker",
    "machines",
    // repositories
    ".git",
    ".hg",
    ".svn",
    ".bzr",
    "_darcs",
    "cvs",
    ".jj",
});

constexpr auto cache_names = std::to_array<std::string_view>(
    {"Cache", "Code Cache", "GPUCache", "CachedData", "CachedExtensionVSIXs", "DawnCache",
     "DawnGraphiteCache", "DawnWebGPUCache", "GrShaderCache", "GraphiteDawnCache", "ShaderCache"});

bool isOneOf(std::span<const std::string_view> list, const std::string& name) {
  return std::find(list.begin(), list.end(), name) != list.end();
}

}  // namespace

const std::vector<Place>& systemPlaces() {
  static const std::vector<Place> list = places({
      {"var/cache", Rule::inside},
      {"var/lib/apt/lists", Rule::named},
      {"var/lib/snapd/cache", Rule::whole},
      {"var/lib/systemd/coredump", Rule::named},
      {"var/crash", Rule::named},
      {"var/log", Rule::rotated_logs},
      {"var/tmp", Rule::inside_named},
      {"tmp", Rule::inside_named},
  });
  return list;
}

const std::vector<Place>& userPlaces() {
  static const std::vector<Place> list = places({
      {".android/cache", Rule::whole},
      {".bundle/cache", Rule::whole},
      {".cargo/git/checkouts", Rule::whole},
      {".cargo/git/db", Rule::whole},
      {".cargo/registry/cache", Rule::whole},
      {".cargo/registry/src", Rule::whole},
      {".ccache", Rule::named},
      {".composer/cache", Rule::whole},
      {".conda/pkgs", Rule::named},
      {".gradle/caches/build-cache-1", Rule::whole},
      {".gradle/caches", Rule::named},
      {".gradle/wrapper/dists", Rule::named},
      {".ivy2/cache", Rule::whole},
      {".local/share/NuGet/http-cache", Rule::whole},
      {".local/share/NuGet/v3-cache", Rule::whole},
      {".local/share/mamba/pkgs", Rule::named},
      {".local/share/pnpm/store", Rule::named},
      {".local/share/yarn/berry/cache", Rule::whole},
      {".m2/repository", Rule::failed_downloads},
      {".npm/_cacache", Rule::whole},
      {".nuget/packages", Rule::whole},
      {".nv/ComputeCache", Rule::whole},
      {".nv/GLCache", Rule::whole},
      {".thumbnails", Rule::whole},
      {".yarn/berry/cache", Rule::whole},
      {"anaconda3/pkgs", Rule::named},
      {"go/pkg/mod", Rule::named},
      {"mambaforge/pkgs", Rule::named},
      {"miniconda3/pkgs", Rule::named},
      {"miniforge3/pkgs", Rule::named},
  });
  return list;
}

const std::vector<Names>& cacheHomes() {
  static const std::vector<Names> list = paths({".cache", ".var/app/*/cache", "snap/*/*/.cache"});
  return list;
}

const std::vector<Names>& keptInCacheHomes() {
  // rclone: pending uploads. uv: its documentation allows only uv itself to change the cache. The others hold
  // data that cannot be made again, or that projects refer to by path.
  static const std::vector<Names> list = paths({
      "JetBrains/*/LocalHistory",
      "JetBrains/*/local-history",
      "bazel",
      "doc",
      "evolution",
      "huggingface/stored_tokens",
      "huggingface/token",
      "ibus",
      "keyring-*",
      "obexd",
      "pypoetry/virtualenvs",
      "rclone",
      "thunderbird",
      "uv",
      "wallpaper",
  });
  return list;
}

const std::vector<Names>& keptInHomes() {
  static const std::vector<Names> list = paths({
      ".cargo/bin",
      ".cargo/registry/index",
      ".gradle/caches/journal-1",
      ".local/share/pnpm/store/*/links",
      ".local/share/pnpm/store/*/index.db",
      ".local/share/pnpm/store/*/projects",
      "*/pkgs/urls.txt",
      "*/pkgs/urls",
  });
  return list;
}

const std::vector<Names>& keptInSystem() {
  static const std::vector<Names> list = paths({
      "var/cache/debconf",
      "var/cache/private",
      "var/log/audit",
      "var/log/installer",
      "var/log/journal",
      "var/log/private",
      "var/tmp/systemd-private-*",
      "tmp/systemd-private-*",
      "tmp/.*-unix",
  });
  return list;
}

bool isCacheName(const std::string& name) { return isOneOf(cache_names, name); }

bool isForbiddenName(const std::string& name, Owner owner) {
  const std::string lower = lowerCase(name);
  return isOneOf(forbidden_names, lower) || (owner == Owner::user && isOneOf(personal_names, lower));
}

const std::vector<std::string>& repositoryNames() {
  static const std::vector<std::string> list = {".git", ".hg", ".svn", ".bzr", "_darcs", ".jj"};
  return list;
}

}  // namespace kelvane::caches
