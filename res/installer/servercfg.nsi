; The product's installer: the configuration utility and its language packs for all users,
; a Start menu shortcut and an uninstaller registered under Add/Remove Programs.
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
  SetOutPath "$INSTDIR"
  File "${BIN}\ServerCfg.exe"
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
  Delete "$INSTDIR\languages\*.lpack"
  RMDir "$INSTDIR\languages"
  Delete "$INSTDIR\uninstall.exe"
  RMDir "$INSTDIR"
  Delete "${SHORTCUT}"
  RMDir "${SHORTCUT_FOLDER}"
  DeleteRegKey HKLM "${UNINSTALL_KEY}"
SectionEnd
