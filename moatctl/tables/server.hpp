// The configuration that the server holds.
#pragma once

#include "moatctl/tables/configuration.hpp"

namespace ovsdb
{
class Client;
}

namespace moatctl
{

// One consistent state. Throws the errors of ovsdb::Client.
Configuration loadFromServer(ovsdb::Client& client);
Configuration toConfiguration(const ovsdb::TableCache& cache);

} // namespace moatctl
