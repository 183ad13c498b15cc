#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/volumes.h"

namespace kelvane::tests {

/// Volumes as a test says. Is the source of volumes for as long as it lives. Any thread.
class FakeVolumes final : public VolumeSource {
 public:
  FakeVolumes() { VolumeSource::install(this); }
  ~FakeVolumes() override { VolumeSource::install(nullptr); }
  FakeVolumes(const FakeVolumes&) = delete;
  FakeVolumes& operator=(const FakeVolumes&) = delete;

  /// A local volume of its own device, with so much space.
  void add(const std::string& path, VolumeSpace space = {1ULL << 40, 1ULL << 41, 0, 0}) {
    const std::lock_guard lock(mutex_);
    const std::string number = std::to_string(mounts_.size());
    mounts_.push_back({"/dev/fake" + number, "/", path, "ext4", "250:" + number, true});
    spaces_[path] = space;
    ++generation_;
  }
  void remove(const std::string& path) {
    const std::lock_guard lock(mutex_);
    std::erase_if(mounts_, [&](const MountEntry& mount) { return mount.target == path; });
    spaces_.erase(path);
    ++generation_;
  }
  void setSpace(const std::string& path, std::optional<VolumeSpace> space) {
    const std::lock_guard lock(mutex_);
    spaces_[path] = space;
  }
  void setOverQuota(std::optional<std::vector<std::string>> volumes) {
    const std::lock_guard lock(mutex_);
    over_quota_ = std::move(volumes);
  }

  [[nodiscard]] int timesRead() const {
    const std::lock_guard lock(mutex_);
    return times_read_;
  }
  [[nodiscard]] int timesSpaceRead() const {
    const std::lock_guard lock(mutex_);
    return times_space_read_;
  }
  /// The user whose quotas were last queried, if any.
  [[nodiscard]] std::optional<uid_t> askedFor() const {
    const std::lock_guard lock(mutex_);
    return asked_for_;
  }

  std::vector<MountEntry> mounts() override {
    const std::lock_guard lock(mutex_);
    ++times_read_;
    return mounts_;
  }
  std::uint64_t mountsGeneration() override {
    const std::lock_guard lock(mutex_);
    return generation_;
  }
  std::optional<VolumeSpace> space(const std::string& path) override {
    const std::lock_guard lock(mutex_);
    ++times_space_read_;
    const auto found = spaces_.find(path);
    return found != spaces_.end() ? found->second : std::nullopt;
  }
  std::optional<std::vector<std::string>> overQuota(uid_t user) override {
    const std::lock_guard lock(mutex_);
    asked_for_ = user;
    return over_quota_;
  }

 private:
  mutable std::mutex mutex_;  // guards all below
  std::vector<MountEntry> mounts_;
  std::uint64_t generation_ = 1;
  std::map<std::string, std::optional<VolumeSpace>> spaces_;
  int times_space_read_ = 0;
  std::optional<std::vector<std::string>> over_quota_;
  std::optional<uid_t> asked_for_;
  int times_read_ = 0;
};

}  // namespace kelvane::tests
