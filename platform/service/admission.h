// Who may open one more connection on a listening socket: connections are
// counted per peer (a uid on a local socket, an address on TCP) so that one
// peer cannot take every slot, and the last slots of the total are kept for
// the peers that must always get in (root, the service's own user, callers
// that may change the service's settings).
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace halvorda::service {

// The limits that apply to one peer; the caller picks them by what it knows
// of the peer (a privileged one gets reserved 0, an unlimited one perPeer =
// total).
struct AdmissionLimits {
  size_t total = 512;     // connections open at a time, every peer together
  size_t perPeer = 64;    // of this peer
  size_t reserved = 64;   // of the total, out of this peer's reach
};

enum class Admission { Admitted, TotalFull, PeerFull };

template <typename Peer, typename Hash = std::hash<Peer>>
class PeerAdmission {
 public:
  // Counts one more connection of the peer when the limits allow it.
  Admission admit(const Peer& peer, const AdmissionLimits& limits) {
    if (open_ + limits.reserved >= limits.total) return Admission::TotalFull;
    const auto found = peers_.find(peer);
    if (found != peers_.end() && found->second.open >= limits.perPeer) return Admission::PeerFull;
    ++peers_[peer].open;
    ++open_;
    return Admission::Admitted;
  }

  // Undoes one admit() of the peer.
  void release(const Peer& peer) {
    const auto found = peers_.find(peer);
    if (found == peers_.end()) return;
    --open_;
    if (--found->second.open == 0) peers_.erase(found);
  }

  // Whether a refusal of the peer is worth a log line now: at most once per
  // period while the peer holds connections.
  bool shouldLogRefusal(const Peer& peer, uint64_t nowMs, uint64_t periodMs) {
    const auto found = peers_.find(peer);
    if (found == peers_.end()) return true;
    uint64_t& last = found->second.lastRefusalLogMs;
    if (last != 0 && nowMs - last < periodMs) return false;
    last = nowMs == 0 ? 1 : nowMs;
    return true;
  }

  size_t open() const { return open_; }
  size_t openOf(const Peer& peer) const {
    const auto found = peers_.find(peer);
    return found == peers_.end() ? 0 : found->second.open;
  }

 private:
  struct Count {
    size_t open = 0;
    uint64_t lastRefusalLogMs = 0;
  };
  std::unordered_map<Peer, Count, Hash> peers_;
  size_t open_ = 0;
};

}  // namespace halvorda::service
