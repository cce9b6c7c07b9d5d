@echo off
rem Installs the kzq collector and agent of one SQL Server instance as
rem Windows services that start with the system.
rem   install-services.cmd <instance> [<install directory>]
rem The install directory defaults to the directory of this script; it must
rem hold kzqagent.exe and kzqcoll.exe. The agent's settings are the values of
rem HKLM\SOFTWARE\Orvane\kzq\<instance>\Environment; this script sets
rem COLL_SERVERID there, and for take action COLL_BINPATH (where
rem kyresql.cmd is) and COLL_PREFIX (the agent's temporary-file prefix). Remove with: install-services.cmd <instance> /remove
setlocal
if "%~1"=="" goto usage
set "INSTANCE=%~1"
set "DIR=%~2"
if "%DIR%"=="" set "DIR=%~dp0"
if "%DIR:~-1%"=="\" set "DIR=%DIR:~0,-1%"
set "AGENT=kzqagent_%INSTANCE%"
set "COLLECTOR=kzqcoll_%INSTANCE%"
set "KEY=SOFTWARE\Orvane\kzq\%INSTANCE%"

if /i "%~2"=="/remove" goto remove
if not exist "%DIR%\kzqagent.exe" (echo kzqagent.exe not found in %DIR% & exit /b 3)
if not exist "%DIR%\kzqcoll.exe" (echo kzqcoll.exe not found in %DIR% & exit /b 3)

if not exist "%DIR%\replay" mkdir "%DIR%\replay"
reg add "HKLM\%KEY%\Environment" /v COLL_SERVERID /t REG_SZ /d "%INSTANCE%" /f
if errorlevel 1 exit /b 4
reg add "HKLM\%KEY%\Environment" /v COLL_BINPATH /t REG_SZ /d "%DIR%" /f
if errorlevel 1 exit /b 4
reg add "HKLM\%KEY%\Environment" /v COLL_PREFIX /t REG_SZ /d kzq /f
if errorlevel 1 exit /b 4
sc create %COLLECTOR% binPath= "\"%DIR%\kzqcoll.exe\" --service --replay \"%DIR%\replay\"" start= auto DisplayName= "kzq collector (%INSTANCE%)"
if errorlevel 1 exit /b 5
sc description %COLLECTOR% "Collects SQL Server instance %INSTANCE% state for the kzq agent."
rem -Hkey with a capital H and the key in quotes: the agent reads its
rem server id and log directory from this form of its command line.
sc create %AGENT% binPath= "\"%DIR%\kzqagent.exe\" -Hkey \"%KEY%\"" start= auto depend= %COLLECTOR% DisplayName= "kzq agent (%INSTANCE%)"
if errorlevel 1 exit /b 5
sc description %AGENT% "Monitors SQL Server instance %INSTANCE% and publishes its state."
sc start %COLLECTOR%
sc start %AGENT%
exit /b 0

:remove
sc stop %AGENT% >nul 2>&1
sc stop %COLLECTOR% >nul 2>&1
sc delete %AGENT%
sc delete %COLLECTOR%
exit /b 0

:usage
echo usage: install-services.cmd ^<instance^> [^<install directory^> ^| /remove]
exit /b 2
