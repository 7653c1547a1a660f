#include "api/ApiBase.h"

#include <algorithm>
#include <iterator>

namespace {

struct CodeMessage {
    ApiErrorCode code;
    const char* msg;
};

// Sorted by code, so that a lookup is a binary search.
const CodeMessage CODE_MESSAGES[] = {
    {API_NOT_EXISTS, "api not exists."},
    {PARAMETER_MISSING, "parameter missing"},
    {PARAMETER_EMPTY, "parameter empty"},
    {PARAMETER_FORMAT_ERROR, "parameter format error"},
    {UNKNOWN_ERROR, "unkown error"},
    {INVALID_APPID, "invalid appid"},
    {PARAMETER_ERROR, "parameter error"},
    {WELCOME_PLUGIN_OPEN_FAILED,
     "welcome plugin open failed: it relys on getWifi, but getWifi not yet open!"},
    {DELETE_FILE_FAILED, "delete file failed"},
    {DIRECTORY_NOT_EXIST, "directory not exist"},
    {TARGET_PATH_NOT_DIRECTORY, "target path is not a directory"},
    {SOURCE_FILE_NOT_EXIST, "source file not exist"},
    {FILE_COPY_FAILED, "file copy failed"},
    {TARGET_FILE_PATH_INVALID, "target file path invalid"},
    {TARGET_FILE_EXIST, "target file exist"},
    {FILE_MOVE_FAILED, "file move failed"},
    {DIRECTORY_ALREADY_EXIST, "directory already exist"},
    {DIRECTORY_CREATE_FAIL, "directory create fail"},
    {TARGET_DIRECTORY_NOT_EMPTY, "target directory not empty"},
    {DIRECTORY_DELETE_FAIL, "directory delete fail"},
    {DIRECTORY_COPY_FAIL, "directory copy fail"},
    {DIRECTORY_MOVE_FAIL, "directory move fail"},
    {NOT_ALL_THUMB_GENERATED, "not all thumb generated."},
    {NO_FORMATTED_STORAGE, "no formatted storage"},
    {FORMAT_STORAGE_ERROR, "format storage error"},
    {MAIN_FOLDER_CANNOT_DELETE, "main folder can not delete"},
    {MAIN_FOLDER_CANNOT_COPY, "main folder can not copy"},
    {MAIN_FOLDER_CANNOT_MOVE, "main folder can not move"},
    {NO_DEVICE_MOUNT_ON, "no device mount on"},
    {DEVICE_OR_RESOURCE_BUSY, "device or resource busy"},
    {UMOUNT_DEVICE_ERROR, "umount device error"},
    {TARGET_DIRECTORY_NOT_EXIST, "target directory not exist"},
    {USER_NAME_OR_PASSWORD_ERROR, "user name or password error"},
    {SPACE_NOT_ENOUGH_FOR_SYNC, "device's space not enough for sync"},
    {ACCOUNT_COUNT_LIMIT, "account count limit"},
    {UNSUPPORTED_SOURCE, "unsupport source"},
    {ACCOUNT_ALREADY_RUNNING, "account already running"},
    {DISABLE_ACCOUNT_FAILED, "disable account failed"},
    {UID_INVALID, "uid invalid"},
    {SOME_RESULTS_ERROR, "some results are error"},
    {NOT_IN_USER_SYNC_PATH, "not in current user's sync path"},
    {ALL_RESULTS_ERROR, "all results are error"},
    {CONTROLLER_CONNECT_CLIENT_FAILED, "dromly controller connecting to client is failed"},
    {CANNOT_COPY_TO_SELF_FOLDER, "can not copy to self folder"},
    {CANNOT_MOVE_TO_SELF_FOLDER, "can not move to self folder"},
    {FILE_NOT_EXISTS, "file not exists"},
    {SYNC_ACCOUNT_NOT_EXIST, "not exist sync account"},
    {NO_SPACE_LEFT_ON_DEVICE, "no space left on device"},
    {REMOVE_ALL_USER_DATA_ERROR, "remove all user data error"},
    {SYSTEM_DEVICE_CANNOT_UMOUNT, "system device can not umount"},
    {NO_SUCH_FILE_OR_DIRECTORY, "no such file or directory"},
    {NO_ACCESS_AUTHORITY, "no access authority"},
    {EXCEED_LIMITATION, "exceed limitation"},
    {SINGLETON_FILE_OPERATION, "singleton file operation"},
    {NEED_OAUTH_ACCOUNT_FIRST, "need oauth zt account first"},
    {MOBILE_INVALID, "mobile invalid"},
    {MOBILE_BOUND_TO_OTHER_ACCOUNT, "mobile have been binded with other account"},
    {ALREADY_BOUND_TO_MOBILE, "have been binded with mobile"},
    {SEND_SMS_FAILED, "send sms failed"},
    {MOBILE_VERIFICATION_CODE_INVALID, "mobile's verification code invalid"},
    {ACCOUNT_DB_ERROR, "dromly db error"},
    {NETWORK_ERROR, "network error"},
    {REQUEST_TIME_OUT, "request time out"},
    {INVALID_DEVICE_ID, "invalid device id"},
    {RESOURCE_NOT_READY, "resource not ready"},
    {OAUTH_TOKEN_INVALID, "oauth token invalid"},
    {OAUTH_TOKEN_ALREADY_AUTHED, "oauth token has been authed"},
    {RENAME_FILE_FAILED, "rename file failed"},
    {COPY_CANCELLED, "copy cancelled"},
    {NO_COPY_THREAD, "no copy thread"},
    {INVALID_CHARACTER, "invalid character"},
    {INVALID_FILE_TYPE, "invalid file type"},
    {INVALID_FILE_SIZE, "invalid file size"},
    {BACKUP_DIR_ALREADY_DELETED, "backup dir already deleted"},
    {INSTALLATION_PACKAGE_DAMAGED, "installation package is damaged"},
    {PERMISSION_DENIED, "Permission denied"},
    {INVALID_FILE_FORMAT, "Invalid file format"},
    {EXT_DEVICE_NOT_EXIST, "not exist ext device"},
    {READ_WRITE_SPEED_TOO_LOW, "Reading and writing speed is too low"},
    {BACKUP_DISK_ERROR, "backup disk error"},
    {ENGINE_DOWNLOADING, "Hestron Downloading"},
    {NO_BACKUP_DISK_TASK, "no backup disk task"},
    {COMPUTING_SIZE, "is computing size, please wait"},
    {COMPUTING_INCREMENTAL_FILE_LIST, "is computing incremental file list, please wait"},
    {SCANNING_EXTDISKS, "is scanning extdisks"},
    {IMPORTING_EXTDISK, "is importing extdisk"},
    {DOWNLOAD_ID_INVALID, "The id is invalid"},
    {DOWNLOAD_OPERATION_FAILED, "Operation failed"},
    {DOWNLOAD_FAILED, "Download failed"},
    {CURL_INIT_FAILED, "Curl init failed"},
    {DOWNLOAD_NO_ENOUGH_SPACE, "No enough space"},
    {DOWNLOAD_FILE_LENGTH_ZERO, "The length of the file is 0."},
    {DUPLICATE_URL, "duplicate url"},
    {DOWNLOAD_DATABASE_ERROR, "Database error"},
    {DOWNLOAD_QUEUE_FULL, "download queue is full"},
    {DOWNLOAD_ENGINE_ERROR, "hestron engine error"},
    {DOWNLOAD_ENGINE_TIME_OUT, "hestron engine time out"},
    {DOWNLOAD_ENGINE_CONNECT_FAILED, "hestron engine could not connect"},
    {CREATE_DOWNLOAD_INVALID_URL, "Create download invalid url"},
    {URL_IS_CREATING, "Url is creating"},
    {INVALID_LOCAL_PATH, "Invalid local path"},
    {BT_TORRENT_ERROR, "bt torrent error"},
    {BT_TORRENT_TOO_LARGE, "bt torrent too large"},
    {BT_CANNOT_DOWNLOAD, "BT can not downloaded"},
    {TASK_NOT_EXIST, "Task not exist"},
    {CLIENT_REFUSED, "Client refused"},
    {TASK_IS_WAITING, "Task is waiting"},
    {NO_ENOUGH_MEMORY, "no enough memory"},
    {DOWNLOAD_INVALID_PARA, "Invalid Para"},
    {DNS_ERROR, "DNS error"},
    {INVALID_LOCAL_NAME, "Invalid Local Name"},
    {BT_NO_RESOURCE_OR_NO_SPACE, "BT No Resouce Or No Space"},
    {MAGNET_ERROR, "Magnet Error"},
    {INSTALL_PLUGIN_ERROR, "Install Plugin Error"},
    {PLUGIN_CONTROL_ERROR, "Plugin Control Error"},
    {INSTALL_PACKAGE_NOT_EXIST, "Install Package Not Exist"},
    {PACKAGE_NO_ID, "Package No Id"},
    {CONFIG_KEY_INVALID_START, "config key must begin with letter or asterisk"},
    {PLUGIN_ALREADY_INSTALLED, "plugin install error, plugin already Installed"},
    {PLUGIN_INSTALL_VERIFY_ERROR, "plugin install verified error"},
    {PLUGIN_INSTALL_SIGN_TYPE_ERROR, "plugin install sign type error"},
    {UPDATE_PLUGIN_USE_STATUS_ERROR, "update plugin use status error"},
    {PLUGIN_NOT_EXIST, "plugin not exist"},
    {ROM_SDK_LEVEL_TOO_LOW, "rom sdk level too low"},
    {PLUGIN_MOUNT_USER_DATA_DISK_ERROR, "Plugin Mount User Data Disk Error"},
    {DEVICE_ID_NOT_FOUND, "Device Id Not Found Error"},
    {INVALID_SDK_TOKEN, "Invalid Sdk Token"},
    {ROM_TYPE_NOT_MATCH, "rom type not match!"},
    {PLUGIN_CANNOT_BE_REMOVED, "This plugin can't be removed"},
};

bool codeBefore(const CodeMessage& entry, ApiErrorCode code) { return entry.code < code; }

}  // namespace

json_object* ApiBase::sCreateJsonObject(ApiErrorCode code) {
    json_object* object = json_object_new_object();
    json_object_object_add(object, "code", json_object_new_int(code));
    json_object_object_add(object, "msg", json_object_new_string(sMessageOf(code)));
    return object;
}

const char* ApiBase::sMessageOf(ApiErrorCode code) {
    const CodeMessage* end = std::end(CODE_MESSAGES);
    const CodeMessage* entry = std::lower_bound(std::begin(CODE_MESSAGES), end, code, codeBefore);
    return entry != end && entry->code == code ? entry->msg : "";
}
