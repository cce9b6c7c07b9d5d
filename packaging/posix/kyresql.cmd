#!/bin/sh
# kyresql.cmd - the database action script of the kzq agent: runs T-SQL on
# the agent's SQL Server instance through SQL Server's command-line client
# sqlcmd and prints what it answers.
#
#   kyresql.cmd <T-SQL>            the statement as the arguments
#   kyresql.cmd -filein <file>     the statement in a file; a file holding
#                                  one text in single quotes (quotes inside
#                                  doubled) holds that text
#
# Settings, from the agent's environment:
#   COLL_HOSTNAME       host of the server (default: localhost)
#   KZQ_NAMED_INSTANCE  non-zero: the named instance COLL_SERVERID on that host
#   COLL_LOGON (else COLL_LOGONID) and COLL_PASSWORD
#                       SQL Server login; without one, integrated
#                       authentication (-E)
#   KZQ_SQLCMD          the client to run (default: sqlcmd on PATH, then
#                       /opt/mssql-tools18/bin and /opt/mssql-tools/bin)

find_sqlcmd() {
  if [ -n "$KZQ_SQLCMD" ]; then
    [ -x "$KZQ_SQLCMD" ] && echo "$KZQ_SQLCMD"
    return
  fi
  command -v sqlcmd && return
  for candidate in /opt/mssql-tools18/bin/sqlcmd /opt/mssql-tools/bin/sqlcmd; do
    [ -x "$candidate" ] && echo "$candidate" && return
  done
}

sqlcmd=$(find_sqlcmd)
if [ -z "$sqlcmd" ]; then
  echo "kyresql: cannot run T-SQL: the SQL Server command-line client sqlcmd is not installed" \
    "(set KZQ_SQLCMD, or put sqlcmd on PATH)" >&2
  exit 127
fi

server=${COLL_HOSTNAME:-localhost}
case ${KZQ_NAMED_INSTANCE:-0} in
  0 | "") ;;
  *) server="$server\\$COLL_SERVERID" ;;
esac

if [ "$1" = "-filein" ]; then
  if [ ! -r "$2" ]; then
    echo "kyresql: cannot read the statement file '$2'" >&2
    exit 2
  fi
  query=$(cat "$2")
  case $query in
    \'*\') query=$(printf '%s\n' "$query" | sed -e "1s/^'//" -e "\$s/'\$//" -e "s/''/'/g") ;;
  esac
else
  query="$*"
fi

login=${COLL_LOGON:-$COLL_LOGONID}
if [ -n "$login" ]; then
  # The password goes through the environment, never the command line.
  SQLCMDPASSWORD=$COLL_PASSWORD exec "$sqlcmd" -S "$server" -U "$login" -b -Q "$query"
fi
exec "$sqlcmd" -S "$server" -E -b -Q "$query"
