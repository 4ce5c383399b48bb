// The plug-in side of the contract and the host's static services.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "host/cim.h"
#include "host/export.h"

// Interfaces that cross the host/plug-in boundary keep default visibility on ELF so that
// dynamic casts between the two libraries agree on their type information.
#if defined(_WIN32)
#define TESSIL_INTERFACE
#else
#define TESSIL_INTERFACE __attribute__((visibility("default")))
#endif

namespace NKestovaTessil20 {

// Identity and life cycle of a plug-in, in slot order.
//
// Binary contract: the object that implements this interface derives from it first and
// from IPluginBasicQueryCallbacks second, and keeps a pointer-sized provider-handle field
// right after the two interface table pointers. RegisterPlugin stores the provider there
// before it returns.
class TESSIL_INTERFACE IPluginCallbacks {
 public:
  virtual ~IPluginCallbacks() = default;
  virtual void* Reserved() = 0;  // no effect; answers null
  virtual std::string GetName() = 0;
  virtual std::string GetVersion() = 0;
  virtual std::string GetFrameworkVersion() = 0;
  // Deletes `object` through its virtual destructor when it is not null.
  virtual void Release(IPluginCallbacks* object) = 0;
  virtual void Init() = 0;
  virtual void DeInit() = 0;
};

class TESSIL_INTERFACE IPluginBasicQueryCallbacks {
 public:
  virtual ~IPluginBasicQueryCallbacks() = default;
  // Collects the instances of `classes`, in order, committing them to the host.
  virtual std::uint64_t QueryInstances(shared_ptr<ICIMNamespace> ns,
                                       std::vector<shared_ptr<ICIMClass>>& classes) = 0;
};

// Opaque to the plug-in.
class TPluginManagerProvider;

// The plug-in manager as a namespace; plug-ins register with it while they load.
class TESSIL_API TPluginManagerNamespace : public ICIMNamespace {
 public:
  ~TPluginManagerNamespace() override;
  virtual TPluginManagerProvider* RegisterPlugin(IPluginCallbacks* callbacks) = 0;
};

class TESSIL_API TRootObject {
 public:
  static shared_ptr<ICIMNamespace> GetPluginManager();
  // Never null while the host library is loaded.
  static ILogger* GetCoreLogger();
};

class TESSIL_API TCIMSchemaHelper {
 public:
  static std::string GetSystemName(shared_ptr<ICIMNamespace> ns);
  static std::string GetSystemCreationClassName(shared_ptr<ICIMNamespace> ns);
  static const std::string kPluginNSPName;
  static const std::string kContextName;
};

class TESSIL_API TOSSpecific {
 public:
  static TCIMDateTime GetLocalTime();
  static std::string GetMachineName();
};

}  // namespace NKestovaTessil20
