// The values a new Member starts with that the naming rule and the index
// operations test for: the column type not yet worked out, and no index.
#ifndef IPC_DB_SRC_DB_MEMBERDEFAULTS_H_
#define IPC_DB_SRC_DB_MEMBERDEFAULTS_H_

namespace ipc_db::detail {

// sql_type of a Member whose column type has not been worked out.
inline constexpr char kUnknownType[] = "unknown_type";
// index_name of a Member that carries no index.
inline constexpr char kNoIndex[] = "NONE";

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_MEMBERDEFAULTS_H_
