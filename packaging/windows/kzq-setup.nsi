; The Windows installer of kzq, one SQL Server instance per run:
;   kzq-<version>-setup.exe /S /INSTANCE=<instance> [/D=<install directory>]
;   <install directory>\uninstall.exe /S /INSTANCE=<instance>
; The programs are shared by every instance installed in the same
; directory; each instance gets its services, settings, data directory and
; configuration file from install-services.cmd, which both directions run so
; that there is one way to install an instance. makensis gets the version,
; the source tree, the three programs and the output file as defines.

Unicode true
Target amd64-unicode
!include LogicLib.nsh
!include FileFunc.nsh

!ifdef VERSION & SOURCE & AGENT & COLLECTOR & CTL & OUTFILE
!else
  !error "makensis -DVERSION=... -DSOURCE=<source tree> -DAGENT=... -DCOLLECTOR=... -DCTL=... -DOUTFILE=..."
!endif
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall"

Name "kzq ${VERSION}"
OutFile "${OUTFILE}"
InstallDir "$PROGRAMFILES64\kzq"
RequestExecutionLevel admin
SetCompressor /SOLID lzma
ShowInstDetails show
ShowUninstDetails show
Page directory
Page instfiles
UninstPage instfiles

Var Instance
Var DataRoot

; Reads /INSTANCE=<name> from the command line into $Instance and the
; machine's kzq data folder into $DataRoot; quits with exit code 2 when the
; name is missing or holds a character other than a letter, a digit, _, -
; or $, since it becomes part of service names, a registry key and paths.
!macro READ_INSTANCE un
Function ${un}ReadInstance
  ${${un}GetParameters} $0
  ClearErrors
  ${${un}GetOptions} $0 "/INSTANCE=" $Instance
  StrLen $1 $Instance
  ${If} ${Errors}
  ${OrIf} $1 == 0
    Goto refused
  ${EndIf}
  StrCpy $2 0
  ${Do}
    StrCpy $3 $Instance 1 $2
    ; StrCmp ignores case: lower-case letters stand for both.
    StrCpy $4 "abcdefghijklmnopqrstuvwxyz0123456789_-$$"
    ${Do}
      StrCpy $5 $4 1
      ${IfThen} $5 == "" ${|} Goto refused ${|}
      ${IfThen} $5 == $3 ${|} ${ExitDo} ${|}
      StrCpy $4 $4 "" 1
    ${Loop}
    IntOp $2 $2 + 1
  ${LoopUntil} $2 >= $1
  ReadEnvStr $DataRoot ProgramData
  ${IfThen} $DataRoot == "" ${|} ReadEnvStr $DataRoot ALLUSERSPROFILE ${|}
  StrCpy $DataRoot "$DataRoot\kzq"
  Return
refused:
  MessageBox MB_OK|MB_ICONSTOP "Give the SQL Server instance as /INSTANCE=<name> (letters, digits, _, - and $$)." /SD IDOK
  SetErrorLevel 2
  Quit
FunctionEnd
!macroend
!insertmacro READ_INSTANCE ""
!insertmacro READ_INSTANCE "un."

Function .onInit
  Call ReadInstance
FunctionEnd

; The configuration file may hold the SQL Server password: only the system
; account, which the services run as, and administrators may open the file
; $0; anything inherited from %ProgramData% (every user may read there) is
; cut off. When that cannot be done the file is deleted, so that a second
; run makes it again, and the install aborts with exit code 4.
Function KeepToAdministrators
  System::Call 'advapi32::ConvertStringSecurityDescriptorToSecurityDescriptorW(w "D:P(A;;FA;;;SY)(A;;FA;;;BA)", i 1, *p .r1, p 0) i .r2'
  ${If} $2 != 0
    System::Call 'advapi32::GetSecurityDescriptorDacl(p r1, *i .r3, *p .r4, *i .r5) i .r2'
    ; SE_FILE_OBJECT, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION
    System::Call 'advapi32::SetNamedSecurityInfoW(w r0, i 1, i 0x80000004, p 0, p 0, p r4, p 0) i .r2'
    System::Call 'kernel32::LocalFree(p r1)'
    ${IfThen} $2 == 0 ${|} Return ${|}
  ${EndIf}
  Delete $0
  SetErrorLevel 4
  Abort "cannot keep $0 to administrators"
FunctionEnd

Section
  SetOutPath "$INSTDIR"
  ; Files another instance's running services hold are left alone when
  ; they are the same.
  SetOverwrite ifdiff
  File "/oname=kzqagent.exe" "${AGENT}"
  File "/oname=kzqcoll.exe" "${COLLECTOR}"
  File "/oname=kzqctl.exe" "${CTL}"
  File "${SOURCE}/packaging/kyresql.cmd"
  File "${SOURCE}/packaging/windows/install-services.cmd"
  File "${SOURCE}/packaging/config/example.conf"
  SetOutPath "$INSTDIR\demo\replay"
  File "${SOURCE}/demo/replay/*.jsonl"
  SetOutPath "$INSTDIR\monitoring"
  File "${SOURCE}/packaging/prometheus/kzq-alerts.yml"
  File "${SOURCE}/packaging/grafana/kzq-overview.json"
  SetOverwrite on

  ; The uninstaller, an empty file per installed instance (the programs go
  ; with the last one), and the instance's entry in Add/Remove Programs,
  ; written first so that a failed install can be uninstalled.
  WriteUninstaller "$INSTDIR\uninstall.exe"
  CreateDirectory "$INSTDIR\instances"
  FileOpen $0 "$INSTDIR\instances\$Instance" w
  FileClose $0
  StrCpy $1 "${UNINSTALL_KEY}\kzq_$Instance"
  WriteRegStr HKLM $1 DisplayName "kzq ${VERSION} ($Instance)"
  WriteRegStr HKLM $1 DisplayVersion "${VERSION}"
  WriteRegStr HKLM $1 InstallLocation "$INSTDIR"
  WriteRegStr HKLM $1 UninstallString '"$INSTDIR\uninstall.exe" /INSTANCE=$Instance'
  WriteRegStr HKLM $1 QuietUninstallString '"$INSTDIR\uninstall.exe" /S /INSTANCE=$Instance'
  WriteRegDWORD HKLM $1 NoModify 1
  WriteRegDWORD HKLM $1 NoRepair 1

  ; The instance's configuration file and replay rows, unless it has its own.
  ${IfNot} ${FileExists} "$DataRoot\$Instance.conf"
    CreateDirectory "$DataRoot"
    CopyFiles /SILENT "$INSTDIR\example.conf" "$DataRoot\$Instance.conf"
    StrCpy $0 "$DataRoot\$Instance.conf"
    Call KeepToAdministrators
  ${EndIf}
  StrCpy $2 "$DataRoot\$Instance"
  ${IfNot} ${FileExists} "$2\replay\*.jsonl"
    CreateDirectory "$2\replay"
    CopyFiles /SILENT "$INSTDIR\demo\replay\*.jsonl" "$2\replay"
  ${EndIf}

  ; What the script printed stays in the instance's logs.
  CreateDirectory "$2\logs"
  DetailPrint "install-services.cmd $Instance, its output in $2\logs\install.log"
  nsExec::Exec '"$SYSDIR\cmd.exe" /c ""$INSTDIR\install-services.cmd" "$Instance" "$INSTDIR" >"$2\logs\install.log" 2>&1"'
  Pop $0
  ${If} $0 != 0
    SetErrorLevel $0
    Abort "install-services.cmd failed with exit code $0: see $2\logs\install.log"
  ${EndIf}
SectionEnd

Function un.onInit
  Call un.ReadInstance
  ${IfNot} ${FileExists} "$INSTDIR\instances\$Instance"
    MessageBox MB_OK|MB_ICONSTOP "kzq instance $Instance is not installed in $INSTDIR." /SD IDOK
    SetErrorLevel 2
    Quit
  ${EndIf}
FunctionEnd

Section Uninstall
  nsExec::ExecToLog '"$SYSDIR\cmd.exe" /c ""$INSTDIR\install-services.cmd" "$Instance" /remove /purge"'
  Pop $0
  ${If} $0 != 0
    SetErrorLevel $0
    Abort "install-services.cmd $Instance /remove /purge failed with exit code $0"
  ${EndIf}
  Delete "$DataRoot\$Instance.conf"
  RMDir "$DataRoot"
  DeleteRegKey HKLM "${UNINSTALL_KEY}\kzq_$Instance"
  DeleteRegKey /ifempty HKLM "SOFTWARE\Orvane\kzq"
  DeleteRegKey /ifempty HKLM "SOFTWARE\Orvane"
  Delete "$INSTDIR\instances\$Instance"
  RMDir "$INSTDIR\instances"
  ${If} ${FileExists} "$INSTDIR\instances\*"
    Return
  ${EndIf}
  Delete "$INSTDIR\kzqagent.exe"
  Delete "$INSTDIR\kzqcoll.exe"
  Delete "$INSTDIR\kzqctl.exe"
  Delete "$INSTDIR\kyresql.cmd"
  Delete "$INSTDIR\install-services.cmd"
  Delete "$INSTDIR\example.conf"
  Delete "$INSTDIR\demo\replay\*.jsonl"
  RMDir "$INSTDIR\demo\replay"
  RMDir "$INSTDIR\demo"
  Delete "$INSTDIR\monitoring\kzq-alerts.yml"
  Delete "$INSTDIR\monitoring\kzq-overview.json"
  RMDir "$INSTDIR\monitoring"
  Delete "$INSTDIR\uninstall.exe"
  RMDir "$INSTDIR"
SectionEnd
