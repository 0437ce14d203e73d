#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/upm/profile.h"

namespace orlane::zem {
class UuidMsg;
}

namespace Ctxt {

class SiteId;
namespace PaceClient {
class KafkaOwner;
}

/// The lines that a client logs while it takes its profiles; formats as the calls need them.  A null one is
/// not logged.
struct KafkaProfileTexts {
  const char* received;    // count of updates, "TRUE" or "FALSE"
  const char* nothing;     //
  const char* entity;      // its id
  const char* foreign;     // entity type
  const char* sizes;       // new, old
  const char* gone;        //
  const char* untyped;     //
  const char* type;        // profile type
  const char* unexpected;  // profile type
  const char* failed;      // why
  const char* failed_unknown;

  const char* agent_begin;
  const char* agent_end;  // the dump
  const char* agent_updating;
  const char* agent_site;  // the site
  const char* agent_no_site;

  const char* mux_begin;
  const char* mux_end;  // the dump
  const char* mux_updating;
  const char* mux_site;  // the site
  const char* mux_no_site;

  const char* site_reset;
};

/// The profiles of the node from which the flow context and the intrusion detection client have brokers,
/// certificate and site: common agent and metrics multiplexer.  A client adds profiles of its own.
///
/// Threads: one, which may wait for files.
class KafkaProfiles {
 public:
  /// All outlive the object.
  KafkaProfiles(const KafkaProfileTexts& texts, PaceClient::KafkaOwner& kafka, SiteId& site)
      : texts_(texts), kafka_(kafka), site_(site) {}
  virtual ~KafkaProfiles() = default;
  KafkaProfiles(const KafkaProfiles&) = delete;
  KafkaProfiles& operator=(const KafkaProfiles&) = delete;

  /// Takes what the profile service tells.  A profile that cannot be read is logged, and those beside it
  /// count all the same.
  void Take(const std::vector<zem::upm::ProfileUpdate>& updates, bool full_sync);

 protected:
  /// Of a type that is neither of the two.  Returns false when it means nothing to the client.
  virtual bool TakeOther(uint32_t type, const std::string& payload);
  virtual void ForgetOther(uint32_t type);
  /// The brokers' profile is gone.
  virtual void ForgetBrokers();
  /// Everything is gone, and nobody knows of which type it was.
  virtual void ForgetAll();

  PaceClient::KafkaOwner& kafka() { return kafka_; }
  void ForgetSite();

 private:
  void TakeUpdate(const zem::upm::ProfileUpdate& update);
  void TakeGone(const zem::upm::ProfileUpdate& update);
  void Forget(uint32_t type);
  void TakeProfile(const zem::upm::Profile& profile);
  void TakeCommonAgent(const std::string& payload);
  void TakeMetricsMux(const std::string& payload);
  template <class Work>
  void Contain(const Work& work);

  const KafkaProfileTexts& texts_;
  PaceClient::KafkaOwner& kafka_;
  SiteId& site_;
};

}  // namespace Ctxt
