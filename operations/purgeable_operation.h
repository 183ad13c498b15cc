#pragma once

// Asks the services how much they could free on one volume, and adds it up.
//
// Answers are not added up as they arrive. Each is written into the recent-info record, and after the
// wait the figures that the record holds for the volume are added up. A service whose figure is
// already in the record is not asked.
//
// `startOperation` blocks its thread for up to 10 seconds, and then polls briefly for stragglers. Each
// service is asked from an item of the global queue; replies come on the threads of their connections. The
// record is used on the state's `defaults_queue` only, in the order in which it was asked for, so the sum
// includes every answer that came before it. Answers that arrive while others wait there are recorded
// together: the volume's free space is then read once for all of them, and outdated figures are removed once.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "operations/operation.h"
#include "operations/persistent_state.h"

namespace kelvane {

class KelvanePurgeableOperation final : public KelvaneOperation {
 public:
  /// As the base's, but only with the services that purge and may be queried. The record is kept in `state`.
  static std::shared_ptr<KelvanePurgeableOperation> initWithInfo(const Value& info, Services services,
                                                                 std::shared_ptr<PersistentState> state);
  KelvanePurgeableOperation(Key key, std::shared_ptr<PersistentState> state)
      : KelvaneOperation(key), state_(std::move(state)) {}

  /// Runs the whole operation and calls the completion once, on this thread, before it returns. The result is
  /// each counted service's figure under its identifier, their sum, and the volume. The sum saturates at the
  /// ends of the signed 64-bit range.
  void startOperation(const std::function<void(const Dictionary& result)>& completion);

  /// Does nothing: a question ends by itself.
  void cancelOperation() override {}

  /// With `add`, notes that the service opts out for the next 120 seconds, and returns false. Without,
  /// returns whether it is still opted out.
  bool optOutService(const std::string& identifier, bool add);

  /// What the record holds for the info's volume (KELVANE_SERVICES_TO_COUNT: identifier to
  /// amount), and which of the operation's services must be asked
  /// (KELVANE_SERVICES_TO_QUERY). Blocks during the lookup.
  [[nodiscard]] Dictionary cachedInfo(const Dictionary& info);
  /// Records a service's answer, KELVANE_AMOUNT on KELVANE_VOLUME; does nothing if
  /// one is missing. Returns at once.
  void updateServiceStats(const std::string& identifier, const Dictionary& entry);

  /// Service identifier to the time of the answer that opted out. Only on `collection_queue` while the
  /// operation runs.
  using OptOuts = std::map<std::string, Date>;
  [[nodiscard]] const OptOuts& optOuts() const { return opt_outs_; }
  void setOptOuts(OptOuts opt_outs) { opt_outs_ = std::move(opt_outs); }

 private:
  void ask(const Dictionary& cached, const Dictionary& request, const dispatch_group_t& group);
  void awaitStragglers();
  [[nodiscard]] Dictionary count(const Dictionary& figures) const;
  [[nodiscard]] Array inFlightNames() const;
  void recordAnswers();

  struct Answer {
    std::string identifier;
    Dictionary entry;
  };

  const std::shared_ptr<PersistentState> state_;
  OptOuts opt_outs_;  // only on collection_queue
  std::mutex answers_mutex_;
  std::vector<Answer> answers_;  // to be recorded; guarded by answers_mutex_
};

}  // namespace kelvane
