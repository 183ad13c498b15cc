// A grant file: which user, group or label holds which entitlements. The daemon's reading of it must agree
// with what the file says, and `kelvanectl check` with the daemon.

#include "support/grants.h"

#include <algorithm>

#include "common/keys.h"
#include "fuzz/scratch_directory.h"
#include "fuzz/target.h"
#include "platform/foundation/property_list.h"
#include "support/entitlements.h"
#include "support/log.h"
#include "tools/checked_file.h"

namespace kelvane::fuzz {
namespace {

constexpr std::size_t largest_grant = std::size_t{1} << 20;

/// Takes the lines that the daemon would log, so that they are made as they would be.
class SilentLog : public LogHandle {
 public:
  SilentLog() { setLogHandle(this); }
  ~SilentLog() override { setLogHandle(replaced_); }
  SilentLog(const SilentLog&) = delete;
  SilentLog& operator=(const SilentLog&) = delete;

  [[nodiscard]] int threshold() const override { return 3; }
  void write(int /*level*/, std::string_view line) override {
    require(line.find('\n') == std::string_view::npos, "a line of the log is one line");
  }

 private:
  LogHandle* const replaced_ = getLogHandle();
};

struct Folder {
  const SilentLog log;
  const ScratchDirectory directory;
};

xpc::PeerCredentials peerOf(const Grant& grant) {
  xpc::PeerCredentials peer{};
  peer.uid = grant.user.value_or(4711);
  peer.gid = grant.group.value_or(4711);
  peer.label = grant.label;
  return peer;
}

/// What the file says of a subject, when it says it as a number.
void requireNumber(const Dictionary& file, const char* kind, const std::optional<id_t>& read) {
  require(file.contains(kind) == read.has_value(), "a grant is for exactly those that its file names");
  if (file[kind].isNumber()) require(file[kind] == Value(*read), "a number names exactly that user or group");
}

void requireThatItSaysWhatItsFileSays(const Grant& grant, const Dictionary& file) {
  requireNumber(file, "user", grant.user);
  requireNumber(file, "group", grant.group);
  require(file["label"].string() == nullptr ? !grant.label : grant.label == *file["label"].string(),
          "a label is that of the file");
  require(grant.user || grant.group || grant.label, "no grant is for everybody");
  const Array* names = file[entitlements_key].array();
  require(names != nullptr, "a grant has an array of names");
  require(std::all_of(names->begin(), names->end(),
                      [&](const Value& name) {
                        return name.string() != nullptr && grant.names.contains(*name.string());
                      }),
          "a grant has every name of its file");
  require(grant.names.size() <= names->size(), "a grant has no other name");
}

void requireThatItMatchesItsSubjectOnly(const Grant& grant) {
  const xpc::PeerCredentials peer = peerOf(grant);
  require(grant.matches(peer), "a grant matches its subject");
  xpc::PeerCredentials other = peer;
  if (grant.user) other.uid = *grant.user ^ 1U;
  if (grant.group) other.gid = *grant.group ^ 1U;
  if (grant.label) other.label = *grant.label + "x";
  require(!grant.matches(other), "a grant does not match another subject");
}

void requireThatNobodyHoldsMore(const std::string& folder, const Grants& read) {
  loadEntitlementGrants({folder});
  xpc::PeerCredentials root{};
  for (const char* name : entitlement_names) {
    const bool granted = std::any_of(read.grants.begin(), read.grants.end(), [&](const Grant& grant) {
      return grant.matches(root) && grant.names.contains(name);
    });
    require(peerIsEntitled(root, {name}) == granted, "with a grant file, root holds what grants give it");
  }
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  if (input.size() > largest_grant) return;
  static const Folder folder;
  folder.directory.write("grant.plist", input);
  const Grants read = readGrants({folder.directory.path()});
  require(read.any_file, "the file was seen");
  require(read.grants.size() <= 1, "a file is one grant at most");
  requireThatNobodyHoldsMore(folder.directory.path(), read);
  const tools::CheckedFile checked = tools::checkFile(folder.directory / "grant.plist");
  if (read.grants.empty()) return;
  const PropertyListResult list = propertyListWithData(input);
  require(!list.error && list.value.isDictionary(), "a grant is a dictionary");
  require(checked.kind == tools::FileKind::grant, "the checker takes for a grant what the daemon does");
  requireThatItSaysWhatItsFileSays(read.grants.front(), *list.value.dictionary());
  requireThatItMatchesItsSubjectOnly(read.grants.front());
}

}  // namespace kelvane::fuzz
