#include "common/constants.h"

namespace installedapps_col {

const std::string kPluginName = "Installed Application Collector";
const std::string kPluginVersion = "1.0";

const std::string kClassInstalledApplication = "KestovaSG_InstalledApplication";
const std::string kClassInstalledFix = "KestovaSG_InstalledFix";
const std::string kClassInstalledRPM = "KestovaSG_InstalledRPM";
const std::string kClassOperatingSystem = "KestovaSG_OperatingSystem";
const std::string kClassTimeZone = "KestovaSG_TimeZone";
const std::string kClassComputerSystem = "KestovaSG_ComputerSystem";
const std::string kClassAccount = "KestovaSG_Account";
const std::string kClassInstalledOS = "KestovaSG_InstalledOS";
const std::string kClassEnvironmentVariable = "KestovaSG_EnvironmentVariable";
const std::string kClassSystemEnvironmentVariable = "KestovaSG_SystemEnvironmentVariable";
const std::string kClassUserEnvironmentVariable = "KestovaSG_UserEnvironmentVariable";
const std::string kClassOSEnvironmentVariable = "KestovaSG_OSEnvironmentVariable";
const std::string kClassAccountOnSystem = "KestovaSG_AccountOnSystem";
const std::string kClassCurrentAccountOnSystem = "KestovaSG_CurrentAccountOnSystem";
const std::string kClassOSComponent = "KestovaSG_OSComponent";
const std::string kClassOSBaseComponent = "KestovaSG_OSBaseComponent";
const std::string kClassOSSubComponent = "KestovaSG_OSSubComponent";
const std::string kClassPageFile = "KestovaSG_PageFile";

const std::string kInitHeader = "TInstalledAppsCallbacks::Init -";
const std::string kInitMessage = "Initializing the plugin.";
const std::string kDeInitHeader = "TInstalledAppsCallbacks::DeInit -";
const std::string kDeInitMessage = "De-Initializing the plugin.";
const std::string kNormalExit = "Normal exit from plugin.";
const std::string kExceptionCaught = "Exception caught";
const std::string kCollectingDataForClass = "Collecting data for class";
const std::string kErrorProcessingProperty = "Error processing property";
const std::string kErrorGeneratingInstances =
    "Encountered an error generating CIM instances. Error Code:";

const std::string kPropCreationClassName = "CreationClassName";
const std::string kPropName = "Name";
const std::string kPropProductName = "ProductName";

const std::string kPropSystemID = "SystemID";
const std::string kPropCollectionID = "CollectionID";
const std::string kPropProductIdentifyingNumber = "ProductIdentifyingNumber";
const std::string kPropProductVersion = "ProductVersion";
const std::string kPropProductInstallDate = "ProductInstallDate";
const std::string kPropProductVendor = "ProductVendor";
const std::string kPropInstalledBy = "InstalledBy";

const std::string kUninstallPath = "SOFTWARE\\MICROSOFT\\WINDOWS\\CurrentVersion\\Uninstall";
const std::string kUninstallPathWow64 =
    "SOFTWARE\\WOW6432Node\\MICROSOFT\\WINDOWS\\CurrentVersion\\Uninstall";
const std::string kInstallerProductsPath = "SOFTWARE\\Classes\\Installer\\Products";
const std::string kHotFixPath = "SOFTWARE\\MICROSOFT\\WINDOWS NT\\CurrentVersion\\HotFix";
const std::string kUpdatesPath = "SOFTWARE\\Microsoft\\Updates";
const std::string kFixUninstallPath = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";

const std::string kAppsNoSubKeys =
    "InstalledAppInfo::getInfo - Unable to enumerate the sub-keys of the desired key.";
const std::string kAppsNoList =
    "InstalledAppInfo::getInfo - Unable to build a list of installed applications.";
const std::string kFixTryWmi = "WindowsFixInfo::getInfo(): try to get hot fixes from WMI.";

const std::string kExcludeAppsVariable = "TESSIL_EXCLUDEAPPS";

}  // namespace installedapps_col
