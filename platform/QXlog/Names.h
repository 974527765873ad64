// Names of the values that events carry. Each is a KORlog::Key whose text is the name without "QXPROP_", in lower case.
#pragma once

#include <KORlog/InfoBag.h>

namespace QXlog::names {

inline constexpr KORlog::Key QXPROP_APPLICATION_CONFIGURATION_ITEMS{"application_configuration_items"};
inline constexpr KORlog::Key QXPROP_AUDIT_CONV_ID{"audit_conv_id"};
inline constexpr KORlog::Key QXPROP_AUDIT_ID{"audit_id"};
inline constexpr KORlog::Key QXPROP_AV_DAT_VERSION{"av_dat_version"};
inline constexpr KORlog::Key QXPROP_AV_ENGINE_VERSION{"av_engine_version"};
inline constexpr KORlog::Key QXPROP_CONNECTION_TYPE{"connection_type"};
inline constexpr KORlog::Key QXPROP_CONTENT_RULES{"content_rules"};
inline constexpr KORlog::Key QXPROP_CONVERSATION_DELTA{"conversation_delta"};
inline constexpr KORlog::Key QXPROP_CONVERSATION_POLICY{"conversation_policy"};
inline constexpr KORlog::Key QXPROP_CONVERSATION_START{"conversation_start"};
inline constexpr KORlog::Key QXPROP_DESCRIPTION{"description"};
inline constexpr KORlog::Key QXPROP_DESTINATION_HOSTNAME{"destination_hostname"};
inline constexpr KORlog::Key QXPROP_DESTINATION_IP{"destination_ip"};
inline constexpr KORlog::Key QXPROP_DESTINATION_PORT{"destination_port"};
inline constexpr KORlog::Key QXPROP_ERROR_ID{"error_id"};
inline constexpr KORlog::Key QXPROP_FILE_FOR_RETRY{"file_for_retry"};
inline constexpr KORlog::Key QXPROP_FILE_NAME{"file_name"};
inline constexpr KORlog::Key QXPROP_LDAP_EMAIL_ADDRESS{"ldap_email_address"};
inline constexpr KORlog::Key QXPROP_LDAP_ERROR_NUMBER{"ldap_error_number"};
inline constexpr KORlog::Key QXPROP_LDAP_ERROR_TEXT{"ldap_error_text"};
inline constexpr KORlog::Key QXPROP_LDAP_SERVER{"ldap_server"};
inline constexpr KORlog::Key QXPROP_LS_SCAN_ATTRIBUTE{"ls_scan_attribute"};
inline constexpr KORlog::Key QXPROP_LS_SERVER_NAME{"ls_server_name"};
inline constexpr KORlog::Key QXPROP_RETRY_DIRECTORY{"retry_directory"};
inline constexpr KORlog::Key QXPROP_SCANNER_AS{"scanner_as"};
inline constexpr KORlog::Key QXPROP_SCANNER_AV{"scanner_av"};
inline constexpr KORlog::Key QXPROP_SCANNER_CF{"scanner_cf"};
inline constexpr KORlog::Key QXPROP_SCANNER_CM{"scanner_cm"};
inline constexpr KORlog::Key QXPROP_SCANNER_EM{"scanner_em"};
inline constexpr KORlog::Key QXPROP_SCANNER_FF{"scanner_ff"};
inline constexpr KORlog::Key QXPROP_SCANNER_IF{"scanner_if"};
inline constexpr KORlog::Key QXPROP_SCANNER_MF{"scanner_mf"};
inline constexpr KORlog::Key QXPROP_SCANNER_NAMES{"scanner_names"};
inline constexpr KORlog::Key QXPROP_SCANNER_SM{"scanner_sm"};
inline constexpr KORlog::Key QXPROP_SCAN_HOST{"scan_host"};
inline constexpr KORlog::Key QXPROP_SCAN_IDENTITY{"scan_identity"};
inline constexpr KORlog::Key QXPROP_SELECTED_IDENTITY{"selected_identity"};
inline constexpr KORlog::Key QXPROP_SOURCE_HOSTNAME{"source_hostname"};
inline constexpr KORlog::Key QXPROP_SOURCE_IP{"source_ip"};
inline constexpr KORlog::Key QXPROP_SOURCE_PORT{"source_port"};
inline constexpr KORlog::Key QXPROP_SPAM_ACTION_THRESHOLD_SCORE{"spam_action_threshold_score"};
inline constexpr KORlog::Key QXPROP_SPAM_ENGINE_VERSION{"spam_engine_version"};
inline constexpr KORlog::Key QXPROP_SPAM_RULES_BROKEN{"spam_rules_broken"};
inline constexpr KORlog::Key QXPROP_SPAM_RULES_VERSION{"spam_rules_version"};
inline constexpr KORlog::Key QXPROP_SPAM_SCORE{"spam_score"};
inline constexpr KORlog::Key QXPROP_SPAM_THRESHOLD_SCORE{"spam_threshold_score"};
inline constexpr KORlog::Key QXPROP_VALUE{"value"};
inline constexpr KORlog::Key QXPROP_VELT_COMMAND_LINE{"velt_command_line"};
inline constexpr KORlog::Key QXPROP_VELT_ERROR{"velt_error"};
inline constexpr KORlog::Key QXPROP_VELT_ID{"velt_id"};
inline constexpr KORlog::Key QXPROP_VELT_LISTEN_ADDRESS{"velt_listen_address"};
inline constexpr KORlog::Key QXPROP_VELT_LISTEN_PORT{"velt_listen_port"};
inline constexpr KORlog::Key QXPROP_VELT_MAX_CONNECTIONS{"velt_max_connections"};
inline constexpr KORlog::Key QXPROP_VELT_MEMORY_SIZE{"velt_memory_size"};
inline constexpr KORlog::Key QXPROP_VELT_MEMORY_SIZE_LIMIT{"velt_memory_size_limit"};
inline constexpr KORlog::Key QXPROP_VELT_OS_ERROR{"velt_os_error"};
inline constexpr KORlog::Key QXPROP_VELT_PID{"velt_pid"};
inline constexpr KORlog::Key QXPROP_VELT_SOCKET_OPERATION{"velt_socket_operation"};
inline constexpr KORlog::Key QXPROP_VIRUS_NAMES{"virus_names"};

}  // namespace QXlog::names
