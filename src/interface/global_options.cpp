#include "interface/global_options.h"

#include "interface/device_table.h"
#include "kmio/kmio.h"
#include "link/result_translation.h"
#include "network/discovery_settings.h"
#include "network/network_discovery.h"
#include "options/option_sets.h"

namespace kmio {

std::uint32_t setGlobalOptions(DeviceTable& table, NetworkDiscovery& discovery, std::string_view options) {
    return resultOf(OperationKind::GlobalOptions, [&] {
        // Refused before anything starts.
        table.throwIfInEventCallback();
        // Everything is checked before anything changes.
        const NetworkDiscovery::Settings settings = discoverySettings(GlobalOptions::parse(options));
        NetworkDiscovery::Prepared prepared;
        discovery.prepare(settings, prepared);
        table.runLocked([&] { discovery.commit(prepared); });
        return KM_IO_OK;
    });
}

}  // namespace kmio
