// Checks of what the catalogs say of a foreign server, and of who uses it.
#include "server/errorBoundary.h"

#include "extension/options.h"
#include "functions/checkOptions.h"
#include "search/failure.h"
#include "server/catalog.h"

#include <algorithm>

namespace qm::functions
{

using server::callServer;

namespace
{

std::string mappingInUse(Oid server)
{
    if (callServer([&] { return server::hasUserMapping(server, GetUserId()); }))
        return "That of the user " +
               std::string(callServer([] { return GetUserNameFromId(GetUserId(), false); })) + " counts.";
    return callServer([&] { return server::hasUserMapping(server, InvalidOid); })
               ? "The public one counts."
               : "There is none, so requests carry no credentials.";
}

// The first of the nodes that begins so, in the encoding of the database; empty when none does.
std::string nodeWith(const search::Cluster &cluster, const std::string &scheme)
{
    const auto found = std::find_if(cluster.nodes.begin(), cluster.nodes.end(), [&](const std::string &node) {
        return node.compare(0, scheme.size(), scheme) == 0;
    });
    return found == cluster.nodes.end() ? "" : search::quoted(*found);
}

void checkEncryption(Report &report, const search::Cluster &cluster)
{
    const std::string what = "encryption";
    const std::string plain = nodeWith(cluster, "http://");
    if (!plain.empty() && cluster.settings.hasCredentials())
        report.wrong(what, "The credentials of the user mapping go to " + plain + " in clear.",
                     "Give the cluster TLS, and \"address\" of the foreign server the scheme https.");
    else if (!nodeWith(cluster, "https://").empty() && !cluster.settings.verifiesTls)
        report.wrong(
            what, "With \"tlsverify\" 'false' anybody can take the place of the cluster.",
            "Name the authority that signed its certificate with the option \"cafile\" of the foreign "
            "server, and drop \"tlsverify\".");
    else
        report.fine(what, plain.empty() ? "The cluster must prove itself with its certificate."
                                        : "None, and no credentials that need it.");
}

void checkTimeouts(Report &report, const http::Settings &settings)
{
    const std::string connecting = std::to_string(settings.connectTimeoutMs) + " ms to connect in";
    const std::string all =
        settings.timeoutMs == 0 ? "any time in all" : std::to_string(settings.timeoutMs) + " ms in all";
    if (settings.timeoutMs != 0 && settings.timeoutMs < settings.connectTimeoutMs)
        report.wrong(
            "time-outs", connecting + " cannot be used up: a request has " + all + ".",
            "Set \"connecttimeout\" of the foreign server below its \"timeout\": then another node is "
            "asked in time, where there is one.");
    else
        report.fine("time-outs", "A request has " + connecting + ", and " + all + ".");
}

} // namespace

Soundness reportFaults(Report &report, const std::string &what, List *definitions, Oid catalog)
{
    Soundness soundness = Soundness::Sound;
    for (const server::FdwError &fault : extension::faultsIn(definitions, catalog)) {
        report.wrong(what, fault);
        const bool isOdd = fault.sqlState == ERRCODE_FDW_INVALID_OPTION_NAME;
        soundness = std::max(soundness, isOdd ? Soundness::Odd : Soundness::Unusable);
    }
    return soundness;
}

std::optional<search::Cluster> checkServerOptions(Report &report, Oid server)
{
    const ForeignServer *about = callServer([&] { return GetForeignServer(server); });
    const std::string ofServer = "options of the foreign server";
    const Soundness sound = reportFaults(report, ofServer, about->options, ForeignServerRelationId);
    if (sound == Soundness::Sound)
        report.fine(ofServer, "Those of \"" + std::string(about->servername) + "\" can be used.");
    List *mapping = callServer([&] { return server::userMappingOptions(server, GetUserId()); });
    const Soundness mapped = reportFaults(report, "user mapping", mapping, UserMappingRelationId);
    if (mapped == Soundness::Sound)
        report.fine("user mapping", mappingInUse(server));
    if (std::max(sound, mapped) == Soundness::Unusable)
        return std::nullopt;
    search::Cluster cluster = extension::readCluster(server, GetUserId());
    checkEncryption(report, cluster);
    checkTimeouts(report, cluster.settings);
    return cluster;
}

} // namespace qm::functions
