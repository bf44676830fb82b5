// Ground of the tests of the packet path: an instance as a row of the table of cases wants it, and
// the books that have to balance after every packet, whatever it holds.
#pragma once

#include <array>

#include "SfeModules/MfibPacketCases.h"

namespace SfeModules {

class PacketFixture : public MfibFixture {
 protected:
  // What an instance counted over all interfaces, and what is held.
  struct Totals {
    uint64_t in = 0;
    uint64_t bytesIn = 0;
    uint64_t out = 0;
    uint64_t dropped = 0;
    uint64_t queued = 0;
    uint64_t held = 0;
  };

  // The interfaces, routes and limits of a row, and nothing counted or held. An instance of the
  // last row is used again for one of the same kind.
  void prepare(const frames::PacketCase& row);

  Totals totals() const;

  // What became of the packets since prepare(), by Fate.
  using FateCounts = std::array<uint64_t, static_cast<size_t>(Fate::kCount)>;
  FateCounts fates() const;

  // Offers one packet and checks that it met one fate and no other, that it was counted as that,
  // and, once what came out is freed, that no packet was lost.
  // Returns: its fate; `sizes`, when given, gets the length of each packet that came out.
  frames::PacketFate offerBalanced(bess::PacketPtr packet,
                                   bool reinjected,
                                   std::vector<size_t>* sizes = nullptr);

 private:
  void create(const frames::Kind& kind);
  void forgetLastRow();
  FateCounts allFates() const;
  frames::PacketFate fateOf(bool answer,
                            const Totals& before,
                            const Totals& after,
                            const bess::testing::Output& out) const;
  FateCounts fatesBefore_{};
  frames::PacketCase prepared_{.name = "", .kind = frames::kEthernetV4};
};

}  // namespace SfeModules
