// The scroll contexts that this session has open on search clusters.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonWriter.h"
#include "search/scrollContexts.h"
#include "search/sending.h"

namespace qm::search
{

ScrollContexts &ScrollContexts::ofSession()
{
    // Never destroyed: the end of the session must find it, whatever the order in which static objects go.
    static auto *ofSession = new ScrollContexts;
    return *ofSession;
}

void ScrollContexts::watchTransactions()
{
    if (watchesTransactions)
        return;
    server::callServer([] {
        RegisterXactCallback(
            [](XactEvent event, void *) {
                if (event == XACT_EVENT_COMMIT || event == XACT_EVENT_ABORT || event == XACT_EVENT_PREPARE)
                    ofSession().removeAbandoned();
            },
            nullptr);
        before_shmem_exit(
            [](int, Datum) {
                for (auto &[handle, context] : ofSession().open)
                    context.isAbandoned = true;
                ofSession().removeAbandoned();
            },
            0);
    });
    watchesTransactions = true;
}

// Whatever becomes of it, the cluster's time-out drops the context in the end.
void ScrollContexts::requestDeletion(const Context &context, http::Clock::time_point end) noexcept
{
    try {
        std::string body = R"({"scroll_id":[)";
        zq::elasticsearch::appendJsonString(body, context.scrollId);
        body += "]}";
        sendBriefly(*context.session, {http::Method::Delete, "/_search/scroll", body}, end);
    } catch (const std::exception &) {
        // There is no memory for the request.
    }
}

ScrollContexts::Handle ScrollContexts::note(const std::shared_ptr<ClusterSession> &session,
                                            const std::string &scrollId)
{
    try {
        watchTransactions();
        open[++last] = {session, scrollId, false};
    } catch (...) {
        requestDeletion({session, scrollId, true}, http::endOfBriefWork());
        throw;
    }
    return last;
}

void ScrollContexts::rename(Handle handle, const std::string &scrollId)
{
    open.at(handle).scrollId = scrollId;
}

void ScrollContexts::forget(Handle handle) noexcept { open.erase(handle); }

void ScrollContexts::abandon(Handle handle) noexcept
{
    const auto found = open.find(handle);
    if (found != open.end())
        found->second.isAbandoned = true;
}

void ScrollContexts::remove(Handle handle) noexcept
{
    const auto found = open.find(handle);
    if (found == open.end())
        return;
    requestDeletion(found->second, http::endOfBriefWork());
    open.erase(found);
}

void ScrollContexts::removeAbandoned() noexcept
{
    const http::Clock::time_point end = http::endOfBriefWork();
    for (auto next = open.begin(); next != open.end();) {
        const auto context = next++;
        if (!context->second.isAbandoned)
            continue;
        requestDeletion(context->second, end);
        open.erase(context);
    }
}

} // namespace qm::search
