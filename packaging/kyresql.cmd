@echo off
rem kyresql.cmd - the database action script of the kzq agent: runs T-SQL on
rem the agent's SQL Server instance through SQL Server's command-line client
rem sqlcmd and prints what it answers.
rem
rem   kyresql.cmd <T-SQL>            the statement as the arguments
rem   kyresql.cmd -filein <file>     the statement in a file; a file holding
rem                                  one text in single quotes (quotes inside
rem                                  doubled) holds that text
rem
rem Settings, from the agent's environment:
rem   COLL_HOSTNAME       host of the server (default: COMPUTERNAME)
rem   KZQ_NAMED_INSTANCE  non-zero: the named instance COLL_SERVERID on that host
rem   COLL_LOGON (else COLL_LOGONID) and COLL_PASSWORD
rem                       SQL Server login; without one, Windows
rem                       authentication (-E)
rem   KZQ_SQLCMD          the client to run (default: sqlcmd.exe on PATH)
setlocal EnableExtensions

set "SQLCMD_EXE=%KZQ_SQLCMD%"
if not defined SQLCMD_EXE for %%I in (sqlcmd.exe) do set "SQLCMD_EXE=%%~$PATH:I"
if not defined SQLCMD_EXE goto no_client
if not exist "%SQLCMD_EXE%" goto no_client

set "SERVER=%COLL_HOSTNAME%"
if not defined SERVER set "SERVER=%COMPUTERNAME%"
if not defined KZQ_NAMED_INSTANCE set "KZQ_NAMED_INSTANCE=0"
if not "%KZQ_NAMED_INSTANCE%"=="0" set "SERVER=%SERVER%\%COLL_SERVERID%"

set "LOGIN=%COLL_LOGON%"
if not defined LOGIN set "LOGIN=%COLL_LOGONID%"
set "AUTH=-E"
if not defined LOGIN goto authenticated
rem The password goes through the environment, never the command line.
set "SQLCMDPASSWORD=%COLL_PASSWORD%"
set AUTH=-U "%LOGIN%"
:authenticated

if /i "%~1"=="-filein" goto from_file
"%SQLCMD_EXE%" -S "%SERVER%" %AUTH% -b -Q "%*"
exit /b %ERRORLEVEL%

:from_file
if not exist "%~2" (
  echo kyresql: cannot read the statement file '%~2' 1>&2
  exit /b 2
)
set "FIRST="
set /p FIRST=<"%~2"
if not defined FIRST set "FIRST= "
if not "%FIRST:~0,1%"=="'" (
  "%SQLCMD_EXE%" -S "%SERVER%" %AUTH% -b -i "%~2"
  exit /b
)
rem A quoted text is a T-SQL string literal as it stands: run it with EXEC.
set "WRAPPED=%TEMP%\kyresql_%RANDOM%%RANDOM%.sql"
echo EXEC(>"%WRAPPED%"
type "%~2">>"%WRAPPED%"
echo )>>"%WRAPPED%"
"%SQLCMD_EXE%" -S "%SERVER%" %AUTH% -b -i "%WRAPPED%"
set "RC=%ERRORLEVEL%"
del "%WRAPPED%"
exit /b %RC%

:no_client
echo kyresql: cannot run T-SQL: the SQL Server command-line client sqlcmd is not installed (set KZQ_SQLCMD, or put sqlcmd.exe on PATH) 1>&2
exit /b 9009
