// Describes the namespaces of the public headers. For Doxygen only.

/// The client library and the framework that it is built on.
namespace orvx {

/// The client: start with OrvServiceRegistryContext, then IOrvServiceRegistryClient.
namespace serviceregistryclient {}

/// Descriptions of services and of endpoints: ServiceInfo, ServiceCreate, ServiceModel.
namespace common {}

/// HTTP: HttpConfig configures it, HttpResponse is the result of a request. The client uses the
/// sessions; users need them only to replace the client.
namespace communication {}

/// Log, threads, executor and timer. Users implement ILoggerFactory to receive the log lines.
namespace utility {}

/// Simulated time, threads and network for tests of services: World and Registry.
namespace simulation {}

}  // namespace orvx
