@echo off
rem Installs the kzq collector and agent of one SQL Server instance as
rem Windows services that start with the system, or removes them.
rem   install-services.cmd <instance> [<install directory>]
rem   install-services.cmd <instance> /remove [/purge]
rem The install directory holds kzqagent.exe and kzqcoll.exe (default: the
rem directory of this script). The instance's settings are the values of
rem HKLM\SOFTWARE\Orvane\kzq\<instance>\Environment; values already there
rem are kept, so settings can be made before installing. The instance's
rem data and logs live in %ProgramData%\kzq\<instance>, the collector's
rem rows in its replay folder (KZQ_REPLAY_DIR) until the setting
rem KZQ_COLLECTOR_SOURCE=sql makes it read SQL Server instead. /remove stops both services, waits
rem for them to stop, deletes them and the key, and leaves the data
rem directory, which /purge deletes too.
setlocal EnableExtensions DisableDelayedExpansion
if "%~1"=="" goto usage
set "INSTANCE=%~1"
set "DIR=%~2"
set "OPTION=%~3"
set "KEY=SOFTWARE\Orvane\kzq\%INSTANCE%"
set "AGENT=kzqagent_%INSTANCE%"
set "DATA=%ProgramData%"
if not defined DATA set "DATA=%ALLUSERSPROFILE%"
set "DATA=%DATA%\kzq\%INSTANCE%"
rem Tests are "if errorlevel" lines, not || or &&, which some command
rem interpreters get wrong. From here on values are expanded with !...!, which takes spaces, & ( )
rem and other characters of a path as they are.
setlocal EnableDelayedExpansion
if /i "!DIR!"=="/remove" goto remove
if not defined DIR set "DIR=%~dp0"
if "!DIR:~-1!"=="\" set "DIR=!DIR:~0,-1!"
if not exist "!DIR!\kzqagent.exe" (echo kzqagent.exe not found in "!DIR!"& exit /b 3)
if not exist "!DIR!\kzqcoll.exe" (echo kzqcoll.exe not found in "!DIR!"& exit /b 3)
sc query "!AGENT!" >nul 2>&1
if not errorlevel 1 (echo !AGENT! is installed already: remove it first& exit /b 6)

rem The collector's service is KZQCOLL<n>, n the lowest number no service has
rem (sc query fails only for a service that does not exist).
set /a N=0
:next_number
sc query "KZQCOLL!N!" >nul 2>&1
if errorlevel 1 goto number_found
set /a N+=1
if !N! lss 100 goto next_number
echo no free collector service name KZQCOLL0 to KZQCOLL99& exit /b 5
:number_found
set "COLLECTOR=KZQCOLL!N!"

if not exist "!DATA!\logs\trace\" mkdir "!DATA!\logs\trace"
if not exist "!DATA!\replay\" mkdir "!DATA!\replay"
if not exist "!DATA!\logs\trace\" goto no_data
if not exist "!DATA!\replay\" goto no_data
reg add "HKLM\!KEY!\Environment" /v COLL_SERVERID /t REG_SZ /d "!INSTANCE!" /f >nul
if errorlevel 1 goto no_key
reg add "HKLM\!KEY!\Environment" /v COLL_SERVICENUMBER /t REG_SZ /d "!N!" /f >nul
if errorlevel 1 goto no_key
reg add "HKLM\!KEY!\Environment" /v COLL_HOME /t REG_SZ /d "!DATA!" /f >nul
if errorlevel 1 goto no_key
reg add "HKLM\!KEY!\Environment" /v KVCLOGDIR /t REG_SZ /d "!DATA!\logs" /f >nul
if errorlevel 1 goto no_key
reg add "HKLM\!KEY!\Environment" /v TAVRA_LOG_PATH /t REG_SZ /d "!DATA!\logs\trace" /f >nul
if errorlevel 1 goto no_key
reg add "HKLM\!KEY!\Environment" /v COLL_BINPATH /t REG_SZ /d "!DIR!" /f >nul
if errorlevel 1 goto no_key
reg add "HKLM\!KEY!\Environment" /v COLL_PREFIX /t REG_SZ /d kzq /f >nul
if errorlevel 1 goto no_key
reg add "HKLM\!KEY!\Environment" /v KZQ_REPLAY_DIR /t REG_SZ /d "!DATA!\replay" /f >nul
if errorlevel 1 goto no_key

rem -Hkey with a capital H right after the program, the key in quotes: both
rem programs take the server id from this form of their command line.
set "COLLECTOR_COMMAND=\"!DIR!\kzqcoll.exe\" -Hkey \"!KEY!\" --service"
set "AGENT_COMMAND=\"!DIR!\kzqagent.exe\" -Hkey \"!KEY!\""
sc create "!COLLECTOR!" binPath= "!COLLECTOR_COMMAND!" start= auto DisplayName= "kzq collector (!INSTANCE!)"
if errorlevel 1 exit /b 5
sc description "!COLLECTOR!" "Collects SQL Server instance !INSTANCE! state for the kzq agent."
sc create "!AGENT!" binPath= "!AGENT_COMMAND!" start= auto depend= "!COLLECTOR!" DisplayName= "kzq agent (!INSTANCE!)"
if errorlevel 1 exit /b 5
sc description "!AGENT!" "Monitors SQL Server instance !INSTANCE! and publishes its state."
rem The channel between the two programs admits each service's own SID
rem whatever logon account an administrator gives it later; that SID is in a
rem service's token only when its SID type is unrestricted. Service managers
rem that do not know the setting (Wine's) fail the command: the services
rem then meet as SYSTEM, their default account, and the install goes on.
sc sidtype "!COLLECTOR!" unrestricted
if errorlevel 1 echo the SID type of !COLLECTOR! is unchanged
sc sidtype "!AGENT!" unrestricted
if errorlevel 1 echo the SID type of !AGENT! is unchanged
sc start "!COLLECTOR!"
if errorlevel 1 exit /b 7
sc start "!AGENT!"
if errorlevel 1 exit /b 7
exit /b 0

:no_data
echo cannot create the data directory "!DATA!"
exit /b 4

:no_key
echo cannot write the settings under "HKLM\!KEY!\Environment"
exit /b 4

:remove
set "N="
for /f "tokens=1,2,*" %%a in ('reg query "HKLM\!KEY!\Environment" /v COLL_SERVICENUMBER 2^>nul') do (
  if /i "%%a"=="COLL_SERVICENUMBER" set "N=%%c"
)
rem A stop only asks: the programs and their logs are held until each
rem service has stopped, which is waited for before anything is deleted.
sc stop "!AGENT!" >nul 2>&1
call :wait_stopped "!AGENT!"
if defined N sc stop "KZQCOLL!N!" >nul 2>&1
if defined N call :wait_stopped "KZQCOLL!N!"
sc delete "!AGENT!"
if defined N sc delete "KZQCOLL!N!"
reg delete "HKLM\!KEY!" /f >nul 2>&1
if /i "!OPTION!"=="/purge" if exist "!DATA!\" rmdir /s /q "!DATA!"
exit /b 0

rem Waits up to 30 seconds for a service to be stopped or gone; ping stands
rem in for a sleep of a second, which not every command interpreter has. A
rem loop of labels, not for /l: Wine's cmd goes on with a for loop after
rem exit /b.
:wait_stopped
set /a TRIES=0
:wait_stopped_again
sc query "%~1" >nul 2>&1
if errorlevel 1 exit /b 0
sc query "%~1" | find "STOPPED" >nul
if not errorlevel 1 exit /b 0
set /a TRIES+=1
if !TRIES! geq 30 (echo %~1 did not stop within 30 seconds& exit /b 0)
ping -n 2 127.0.0.1 >nul
goto wait_stopped_again

:usage
echo usage: install-services.cmd ^<instance^> [^<install directory^>]
echo        install-services.cmd ^<instance^> /remove [/purge]
exit /b 2
