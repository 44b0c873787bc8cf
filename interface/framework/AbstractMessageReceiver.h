#pragma once

#include "process_collect/ProcsMessage.h"

#include <map>
#include <memory>

namespace Engine {

class FileNotifyMessage;
class FtraceMessage;

/// The names by which an inventory collector speaks of its records.
class AssetMessage {
public:
    struct assetInfo;
};

/// How a collector calls a subscriber directly instead of queueing a message. A receiver overrides
/// the handlers of the collectors that it subscribed to. For one registration a collector uses
/// either the call or the queue, never both; the collectors of this agent use the queue.
///
/// Threads: the collector's thread.
class AbstractMessageReceiver {
public:
    AbstractMessageReceiver() = default;
    AbstractMessageReceiver(const AbstractMessageReceiver&) = delete;
    AbstractMessageReceiver& operator=(const AbstractMessageReceiver&) = delete;

    /// A file was touched. @return 0
    virtual int FileNotifyMessageAction(FileNotifyMessage* /*message*/) { return 0; }

    /// A process started (flag 1, 2) or ended (3). info may be null for an end.
    virtual void ProcsMessageAction(int /*pid*/, unsigned int /*flag*/,
                                    std::shared_ptr<ProcsMessage::procInfo> /*info*/) {}

    /// Records of the host's inventory changed.
    virtual void AssetMessageAction(
        unsigned int /*kind*/,
        const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>& /*assets*/) {}

    /// A traced kernel function was called.
    virtual void FtraceMessageAction(const FtraceMessage* /*message*/) {}

    virtual ~AbstractMessageReceiver() = default;
};

}  // namespace Engine
