#pragma once

#include <boost/intrusive_ptr.hpp>
#include <string>

#include "app/pktcap/exporter/pktcap_exporter.h"
#include "app/pktcap/service/pktcap_uploader.h"
#include "app/pktcap/service/session_status.h"
#include "proto/packetcapture/packetcapture.pb.h"

namespace zem::Tarvik {

/// One capture from its start to its removal.
struct CaptureSession {
  CaptureSession() = default;
  ~CaptureSession();
  CaptureSession(const CaptureSession&) = delete;
  CaptureSession& operator=(const CaptureSession&) = delete;

  /// Whether the capture goes to a file.
  bool to_file() const;

  std::string id;
  orlane::zem::packetcapture::PktCapRequestMsg request;
  boost::intrusive_ptr<PktcapExporter> exporter;
  /// Null until an upload starts.
  boost::intrusive_ptr<PktcapUploader> uploader;
  /// The temporary capture file; empty for a stream.
  std::string file;
  /// Where an operator wants the file; empty for a session of the manager.
  std::string destination;
  /// Nobody but an operator is told of it.
  bool local = false;
  SessionState state = SessionState::kRunning;
  UploadTarget upload;
};

/// A session as it is shown.
struct SessionView {
  std::string id;
  orlane::zem::packetcapture::PktCapRequestMsg request;
  std::string destination;
  SessionState state = SessionState::kRunning;
};

}  // namespace zem::Tarvik
