# Makes group.ovsschema and group.permissions of moatkeeper.ovsschema and packaging/access.ovsschema: the schema of the database
# moatkeeper_GROUP, with the tables of the server's role-based access, and the operations that fill these.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS moatkeeper.ovsschema ${PROJECT_SOURCE_DIR}/packaging/access.ovsschema)
file(READ moatkeeper.ovsschema schema)
file(READ ${PROJECT_SOURCE_DIR}/packaging/access.ovsschema access)

set(permissions "")
set(administrator "")
string(JSON count LENGTH "${schema}" tables)
math(EXPR last "${count} - 1")
foreach(index RANGE ${last})
  string(JSON table MEMBER "${schema}" tables ${index})
  string(JSON columnCount LENGTH "${schema}" tables ${table} columns)
  math(EXPR lastColumn "${columnCount} - 1")
  set(columns "")
  foreach(column RANGE ${lastColumn})
    string(JSON name MEMBER "${schema}" tables ${table} columns ${column})
    list(APPEND columns "\"${name}\"")
  endforeach()
  if(table STREQUAL "MoatKeeperDevice")
    # Each device has a row, by its name in its certificate. An administrator may take out the row of one that is gone.
    set(ofAdministrators "")
    list(REMOVE_ITEM columns "\"Name\"")
    list(JOIN columns ", " ofDevices)
  else()
    list(JOIN columns ", " ofAdministrators)
  endif()
  string(APPEND permissions "{\"op\": \"insert\", \"table\": \"RBAC_Permission\", \"uuid-name\": \"a${index}\", \"row\": "
    "{\"table\": \"${table}\", \"authorization\": \"\", \"insert_delete\": true, "
    "\"update\": [\"set\", [${ofAdministrators}]]}},\n")
  list(APPEND administrator "[\"${table}\", [\"named-uuid\", \"a${index}\"]]")
endforeach()
list(JOIN administrator ", " administrator)
file(CONFIGURE OUTPUT group.permissions CONTENT [=[
{"op": "delete", "table": "RBAC_Role", "where": []},
{"op": "delete", "table": "RBAC_Permission", "where": []},
@permissions@{"op": "insert", "table": "RBAC_Role", "row":
 {"name": "administrator", "permissions": ["map", [@administrator@]]}},
{"op": "insert", "table": "RBAC_Permission", "uuid-name": "own", "row":
 {"table": "MoatKeeperDevice", "authorization": "Name", "insert_delete": true, "update": ["set", [@ofDevices@]]}},
{"op": "insert", "table": "RBAC_Role", "row":
 {"name": "device", "permissions": ["map", [["MoatKeeperDevice", ["named-uuid", "own"]]]]}}
]=] @ONLY)

foreach(table RBAC_Role RBAC_Permission)
  string(JSON definition GET "${access}" tables ${table})
  string(JSON schema SET "${schema}" tables ${table} "${definition}")
endforeach()
string(JSON schema SET "${schema}" name "\"moatkeeper_GROUP\"")
file(CONFIGURE OUTPUT group.ovsschema CONTENT "${schema}\n" @ONLY)
