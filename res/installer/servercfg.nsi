; The product's installer: the configuration utility, its language packs and the
; third-party notices for all users, a Start menu shortcut and an uninstaller registered
; under Add/Remove Programs.
;
; makensis -DVERSION=1.0.0.0 -DBIN=<build>\bin -DOUTFILE=<path>\UlmoraToolsSetup.exe
;          [-DSIGN_FILE=<scripts/sign-file> -DSIGN_KEY=<key>] servercfg.nsi
;
; Switches: /S silent, /D=<folder> (last) the installation folder, and /UPDATE=<handle>:
; the update path of the running program passes an inheritable handle of its own process;
; the installer waits for that process to end before it replaces files, and when it is not
; silent starts the new version afterwards.

Unicode true
Target amd64-unicode
SetCompressor /SOLID lzma
RequestExecutionLevel admin

!include "LogicLib.nsh"
!include "FileFunc.nsh"

!ifndef VERSION
  !define VERSION "1.0.0.0"
!endif
!ifndef BIN
  !error "BIN (the build's bin folder) must be defined"
!endif
; The uninstaller is signed with the installer's key before it is packed into the installer.
!ifdef SIGN_FILE
  !uninstfinalize '"${SIGN_FILE}" "${SIGN_KEY}" "%1" "%1"' = 0
!endif
!ifndef OUTFILE
  !define OUTFILE "UlmoraToolsSetup.exe"
!endif

!define PRODUCT "Ulmora Tools Server Configuration Utility"
!define PUBLISHER "QMX Software"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\QMX Ulmora Tools ServerCfg"
!define SHORTCUT_FOLDER "$SMPROGRAMS\QMX Software"
!define SHORTCUT "${SHORTCUT_FOLDER}\Ulmora Tools Server Configuration.lnk"
; The program's data folders under %ProgramData% ($APPDATA in the all-users context); the
; elevated program stages downloads in the last one and accepts only folders that
; administrators alone may change.
!define DATA_VENDOR "$APPDATA\QMX Software"
!define DATA_PRODUCT "${DATA_VENDOR}\Ulmora Tools"
!define DATA_UPDATES "${DATA_PRODUCT}\Updates"
!define SETTINGS_KEY "Software\QMX Software\Ulmora Tools\ServerCfg"
; Owner Administrators; SYSTEM and Administrators only, nothing inherited.
!define PROTECTED_SDDL "O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"

Name "${PRODUCT}"
OutFile "${OUTFILE}"
InstallDir "$PROGRAMFILES64\QMX Software\Ulmora Tools"
InstallDirRegKey HKLM "${UNINSTALL_KEY}" "InstallLocation"
ShowInstDetails show

VIProductVersion "${VERSION}"
VIAddVersionKey "ProductName" "QMX Software Ulmora Tools Server"
VIAddVersionKey "CompanyName" "${PUBLISHER}"
VIAddVersionKey "FileDescription" "${PRODUCT} Setup"
VIAddVersionKey "FileVersion" "${VERSION}"
VIAddVersionKey "ProductVersion" "${VERSION}"
VIAddVersionKey "LegalCopyright" "Copyright (C) 2026 QMX Software"

Page directory
Page instfiles
UninstPage uninstConfirm
UninstPage instfiles

Var Updating

; Creates the folder on the stack with the protected descriptor in the same call (a folder
; that exists is left as it is: the program judges it). Leaves 1 on the stack when the
; folder was created, 0 when it existed or could not be made.
Function CreateProtectedFolder
  Exch $0
  Push $1
  Push $2
  Push $3
  StrCpy $3 0
  System::Call 'advapi32::ConvertStringSecurityDescriptorToSecurityDescriptorW(w "${PROTECTED_SDDL}", i 1, *p .r1, p 0) i .r2'
  ${If} $2 <> 0
    ; SECURITY_ATTRIBUTES on x64: length, padding, the descriptor, the inherit flag.
    System::Call '*(i 24, i 0, p r1, i 0, i 0) p .r2'
    System::Call 'kernel32::CreateDirectoryW(w r0, p r2) i .r3'
    System::Free $2
    System::Call 'kernel32::LocalFree(p r1)'
  ${EndIf}
  StrCpy $0 $3
  Pop $3
  Pop $2
  Pop $1
  Exch $0
FunctionEnd

!macro CreateProtectedFolder folder
  Push "${folder}"
  Call CreateProtectedFolder
  Pop $0
!macroend

Function .onInit
  SetRegView 64
  SetShellVarContext all
  StrCpy $Updating 0
  ${GetParameters} $R0
  ClearErrors
  ${GetOptions} $R0 "/UPDATE=" $R1
  ${IfNot} ${Errors}
    StrCpy $Updating 1
    ; The program that started us holds its files until it has ended.
    System::Call "kernel32::WaitForSingleObject(p R1, i 120000) i .R2"
    System::Call "kernel32::CloseHandle(p R1)"
  ${EndIf}
FunctionEnd

Section "Program"
  ; A folder outside Program Files inherits whatever its parent grants (C:\ lets users
  ; create and change files): it is made for administrators alone before anything is copied.
  StrLen $1 "$PROGRAMFILES64\"
  StrCpy $2 "$INSTDIR\" $1
  ${If} $2 != "$PROGRAMFILES64\"
    ${GetParent} "$INSTDIR" $3
    CreateDirectory "$3"
    !insertmacro CreateProtectedFolder "$INSTDIR"
    ${If} $0 == 0
      ; It was there already: it gets the protected descriptor, unless it leads elsewhere.
      ${If} ${FileExists} "$INSTDIR\*.*"
        System::Call 'kernel32::GetFileAttributesW(w "$INSTDIR") i .r4'
        IntOp $4 $4 & 0x400
        ${If} $4 <> 0
          MessageBox MB_OK|MB_ICONSTOP "$INSTDIR is a link to another folder." /SD IDOK
          Abort
        ${EndIf}
        System::Call 'advapi32::ConvertStringSecurityDescriptorToSecurityDescriptorW(w "${PROTECTED_SDDL}", i 1, *p .r1, p 0) i .r2'
        ; OWNER | DACL | PROTECTED_DACL
        System::Call 'advapi32::SetFileSecurityW(w "$INSTDIR", i 0x80000005, p r1) i .r2'
        System::Call 'kernel32::LocalFree(p r1)'
      ${EndIf}
    ${EndIf}
  ${EndIf}

  !insertmacro CreateProtectedFolder "${DATA_VENDOR}"
  !insertmacro CreateProtectedFolder "${DATA_PRODUCT}"
  !insertmacro CreateProtectedFolder "${DATA_UPDATES}"

  SetOutPath "$INSTDIR"
  File "${BIN}\ServerCfg.exe"
  File "${BIN}\ThirdPartyNotices.txt"
  SetOutPath "$INSTDIR\languages"
  File "${BIN}\languages\*.lpack"
  SetOutPath "$INSTDIR"
  WriteUninstaller "$INSTDIR\uninstall.exe"

  CreateDirectory "${SHORTCUT_FOLDER}"
  CreateShortcut "${SHORTCUT}" "$INSTDIR\ServerCfg.exe"

  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "${PRODUCT}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "Publisher" "${PUBLISHER}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\ServerCfg.exe"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
  WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1
  ${GetSize} "$INSTDIR" "/S=0K" $0 $1 $2
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "EstimatedSize" $0

  ; An update the user accepted ends where it began: in the program.
  ${If} $Updating == 1
  ${AndIfNot} ${Silent}
    Exec '"$INSTDIR\ServerCfg.exe"'
  ${EndIf}
SectionEnd

Function un.onInit
  SetRegView 64
  SetShellVarContext all
FunctionEnd

Section "Uninstall"
  Delete "$INSTDIR\ServerCfg.exe"
  Delete "$INSTDIR\ThirdPartyNotices.txt"
  Delete "$INSTDIR\languages\*.lpack"
  RMDir "$INSTDIR\languages"
  Delete "$INSTDIR\uninstall.exe"
  RMDir "$INSTDIR"
  Delete "${SHORTCUT}"
  RMDir "${SHORTCUT_FOLDER}"
  DeleteRegKey HKLM "${UNINSTALL_KEY}"
  ; The downloads the program staged, and the folders above them where nothing else is left.
  RMDir /r "${DATA_UPDATES}"
  RMDir "${DATA_PRODUCT}"
  RMDir "${DATA_VENDOR}"
  DeleteRegValue HKLM "${SETTINGS_KEY}" "UpdateServiceAddress"
  DeleteRegKey /ifempty HKLM "${SETTINGS_KEY}"
SectionEnd
