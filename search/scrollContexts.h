// The scroll contexts that this session has open on search clusters.
#pragma once

#include "search/clusterSession.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace qm::search
{

// A context is noted as soon as it is known, outside of any transaction's memory, and deleted however the
// scan ends: by the scan itself; or, if that had no occasion to, at the end of the transaction, at the next
// scan, or before the session ends. After a kill the cluster's own time-out has the last word.
class ScrollContexts
{
public:
    using Handle = std::uint64_t;

    // Those of the session.
    static ScrollContexts &ofSession();

    // Notes a context. Throws ServerError or std::bad_alloc, and deletes the context before that.
    Handle note(const std::shared_ptr<ClusterSession> &session, const std::string &scrollId);
    // A context has got another id.
    void rename(Handle handle, const std::string &scrollId);
    // A context is gone on the cluster.
    void forget(Handle handle) noexcept;
    // Nobody reads the context any more: it is to be deleted at the next occasion. Does nothing else.
    void abandon(Handle handle) noexcept;
    // Deletes the context now; gives up after a second.
    void remove(Handle handle) noexcept;
    // Deletes the abandoned ones; gives up after a second in all.
    void removeAbandoned() noexcept;

private:
    struct Context {
        std::shared_ptr<ClusterSession> session;
        std::string scrollId; // decoded
        bool isAbandoned;
    };

    ScrollContexts() = default;
    void watchTransactions();
    static void requestDeletion(const Context &context, http::Clock::time_point end) noexcept;

    std::map<Handle, Context> open;
    Handle last = 0;
    bool watchesTransactions = false;
};

} // namespace qm::search
