// Finds the TCP and UDP entries of given addresses in the kernel's conntrack table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "ctmgr/ConntrackMatch.h"
#include "ctmgr/Mutex.h"
#include "ctmgr/ReadingTurns.h"
#include "ctmgr/TableQuestion.h"
#include "ctmgr/ZanConnTrackFilter.h"
#include "ctmgr/ZanConnTrackUtils.h"

/// Reads the table through a stream of its own over the manager's descriptor, from the start at
/// every scan.
///
/// A line of the table, blanks apart (net/netfilter/nf_conntrack_standalone.c prints it):
///
///   ipv4 2 tcp 6 431999 ESTABLISHED src=A dst=B sport=P dport=Q src=C dst=D sport=R dport=S ...
///                                   `---- original tuple -----' `----- reply tuple -----'
///
/// Lines and addresses hold no NUL.
///
/// Thread: any. Who reads takes a turn at the stream. A scan that is alone looks at each line as it
/// is read; where several want the table, one reads it and each goes through the text on its own
/// thread, without a turn.
class ZanConnTrackParser {
 public:
  /// One line and the client it is compared with.
  struct ZanConnTrackLineParseControlType {
    std::string line;         ///< as read from the table, newline included
    std::string ipv4Address;  ///< see ZanConnTrackFileParseControlType
    std::string ipv6Address;
  };

  /// Results of the line parsers and, kMatched for "read to the end", of the file scans.
  enum Result : int {
    kMatched = ctmgr::kLineMatched,
    kNotOfInterest = ctmgr::kLineNotOfInterest,
    kFailed = ctmgr::kLineFailed,  ///< of a scan also: there is no stream
    kTurnedAway = -100             ///< turnCleanUpsAway() came first: nothing was read
  };

  /// |utils| must outlive the parser.
  explicit ZanConnTrackParser(ZanConnTrackUtils& utils);
  ~ZanConnTrackParser();
  ZanConnTrackParser(const ZanConnTrackParser&) = delete;
  ZanConnTrackParser& operator=(const ZanConnTrackParser&) = delete;

  /// Binds the stream to |fd|, once; the descriptor stays the manager's and is never closed from
  /// here. Returns 0, or -1 when there can be no stream over |fd|.
  int setPrivilegeParams(int fd);

  /// Appends every tuple in which the client of |control| is the source, of either direction, to
  /// |v4Out| (AF_INET) or |v6Out|. Returns kMatched when the whole table was read, kFailed when
  /// it could not be, or the line result that ended the scan; what was found before stays.
  int parseNfConnTrackFile(const ZanConnTrackFileParseControlType& control,
                           std::list<ZanConnTrackFilter_s>& v4Out,
                           std::list<ZanConnTrackFilter_s>& v6Out, int fd);

  /// The same with any reading of the table that answers |question|. kTurnedAway is for clean-ups
  /// alone.
  int parseNfConnTrackFile(const ZanConnTrackFileParseControlType& control,
                           std::list<ZanConnTrackFilter_s>& v4Out,
                           std::list<ZanConnTrackFilter_s>& v6Out, int fd,
                           ctmgr::TableQuestion& question);

  /// From now on a clean-up whose reading has not begun gets kTurnedAway.
  void turnCleanUpsAway();

  /// Appends the reply tuples of the IPv4 entries that one of |clientAddresses| opened and whose
  /// translated address is one of |lostAddresses|. Results as above.
  int parseNfConnTrackFile(std::vector<std::string>& clientAddresses,
                           std::vector<std::string>& lostAddresses,
                           std::list<ZanConnTrackFilter_s>& out, int fd);

  /// The tuple of one line in which the client is the source. Fills |out| on kMatched only.
  int parseNfConnTrackLine(const ZanConnTrackLineParseControlType& control,
                           ZanConnTrackFilter_s& out);

  /// The reply tuple of one IPv4 line whose original source is |clientAddress| and whose reply
  /// destination reads exactly |lostAddress|. Fills |out| on kMatched only.
  int parseNfConnTrackLine(std::string line, std::string clientAddress, std::string lostAddress,
                           ZanConnTrackFilter_s& out);

 protected:
  /// seq_file hands out at most a page a read (fs/seq_file.c): a larger buffer gains nothing, a
  /// smaller one makes older kernels walk the table from its head more often.
  static constexpr std::size_t kStreamBufferSize = 4096;

  /// Longest piece of a line that is read at once, in characters; the rest arrives as a line of
  /// its own.
  static constexpr std::size_t kLineMax = 512;

  int bindStream(int fd) ZAN_REQUIRES(turns);
  [[nodiscard]] bool openTable(int fd) ZAN_REQUIRES(turns);
  void rewindTable() ZAN_REQUIRES(turns);
  [[nodiscard]] bool readText(ctmgr::TableText& text) ZAN_REQUIRES(turns);
  template <typename LineHandler>
  int scanStream(LineHandler handleLine) ZAN_REQUIRES(turns);
  template <typename LineHandler>
  int readTable(ctmgr::TableQuestion& question, std::shared_ptr<const ctmgr::TableText>& text,
                LineHandler handleLine) ZAN_REQUIRES(turns);
  template <typename LineHandler>
  int scanTable(int fd, ctmgr::TableQuestion& question, LineHandler handleLine);

  ZanConnTrackUtils& utils;
  std::FILE* stream ZAN_GUARDED_BY(turns) = nullptr;
  std::array<char, kStreamBufferSize> streamBuffer ZAN_GUARDED_BY(turns){};

  ctmgr::ReadingTurns turns;
  bool cleanUpsTurnedAway ZAN_GUARDED_BY(turns) = false;
  std::weak_ptr<const ctmgr::TableText> latestText
      ZAN_GUARDED_BY(turns);  ///< kept by those who go through it
  ctmgr::TableQuestion::Clock::time_point latestBegan
      ZAN_GUARDED_BY(turns);  ///< when its reading began
};
