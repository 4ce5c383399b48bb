// The shared table of named constants: class names, messages and the texts the frame
// composes. Collectors quote these instead of repeating literals.
#pragma once

#include <string>

namespace installedapps_col {

// Plug-in identity.
extern const std::string kPluginName;
extern const std::string kPluginVersion;

// Class names, in declaration order.
extern const std::string kClassInstalledApplication;
extern const std::string kClassInstalledFix;
extern const std::string kClassInstalledRPM;
extern const std::string kClassOperatingSystem;
extern const std::string kClassTimeZone;
extern const std::string kClassComputerSystem;
extern const std::string kClassAccount;
extern const std::string kClassInstalledOS;
extern const std::string kClassEnvironmentVariable;
extern const std::string kClassSystemEnvironmentVariable;
extern const std::string kClassUserEnvironmentVariable;
extern const std::string kClassOSEnvironmentVariable;
extern const std::string kClassAccountOnSystem;
extern const std::string kClassCurrentAccountOnSystem;
extern const std::string kClassOSComponent;
extern const std::string kClassOSBaseComponent;
extern const std::string kClassOSSubComponent;
extern const std::string kClassPageFile;

// Life cycle and frame messages. Several are joined without a blank by their callers;
// the run-together texts are the messages.
extern const std::string kInitHeader;
extern const std::string kInitMessage;
extern const std::string kDeInitHeader;
extern const std::string kDeInitMessage;
extern const std::string kNormalExit;
extern const std::string kExceptionCaught;
extern const std::string kCollectingDataForClass;
extern const std::string kErrorProcessingProperty;
extern const std::string kErrorGeneratingInstances;

// Properties shared by several classes.
extern const std::string kPropCreationClassName;
extern const std::string kPropName;
extern const std::string kPropProductName;

// Installed products and fixes: property names.
extern const std::string kPropSystemID;
extern const std::string kPropCollectionID;
extern const std::string kPropProductIdentifyingNumber;
extern const std::string kPropProductVersion;
extern const std::string kPropProductInstallDate;
extern const std::string kPropProductVendor;
extern const std::string kPropInstalledBy;

// Installed products and fixes: registry paths (below HKEY_LOCAL_MACHINE).
extern const std::string kUninstallPath;
extern const std::string kUninstallPathWow64;
extern const std::string kInstallerProductsPath;
extern const std::string kHotFixPath;
extern const std::string kUpdatesPath;
extern const std::string kFixUninstallPath;

// Installed products and fixes: messages.
extern const std::string kAppsNoSubKeys;
extern const std::string kAppsNoList;
extern const std::string kFixTryWmi;

// Configuration.
extern const std::string kExcludeAppsVariable;

}  // namespace installedapps_col
