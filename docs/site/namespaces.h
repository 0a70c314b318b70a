// What the namespaces of the public headers are for. Read by Doxygen only.

/// The client library and what it stands on.
namespace orvx {

/// The client: begin with OrvServiceRegistryContext, and go on with IOrvServiceRegistryClient.
namespace serviceregistryclient {}

/// Descriptions of services and of endpoints: ServiceInfo, ServiceCreate, ServiceModel.
namespace common {}

/// HTTP: HttpConfig says how it is spoken, HttpResponse what came of a request. The sessions
/// beneath are the client's own; users need them to replace it.
namespace communication {}

/// Log, threads, executor and timer. Users meet ILoggerFactory, to bring log lines into their own
/// log.
namespace utility {}

/// Simulated time, threads and network, to test a service without any of them: World, and Registry.
namespace simulation {}

}  // namespace orvx
