// Out-of-line destructors, so that each interface's vtable lives in this library.
#include "Zun/Rsc/IRscSerializable.hpp"
#include "Zun/Rsc/IRscService.hpp"
#include "Zun/Rsc/IRscServiceProxyFactory.hpp"
#include "Zun/Rsc/IServiceProvider.hpp"
#include "Zun/Rsc/RemotingException.hpp"

namespace Zun::System::Rsc
{

IRscSerializable::~IRscSerializable() = default;
IRscService::~IRscService() = default;
IRscServiceProxyFactory::~IRscServiceProxyFactory() = default;
IServiceProvider::~IServiceProvider() = default;
RemotingException::~RemotingException() = default;

} // namespace Zun::System::Rsc
