@echo off
rem Tries kestrix.exe on this Windows, on three small disks in files (VHD) that it makes itself, and writes what came of
rem it to check-windows-report.txt. It is started as administrator, in the folder where kestrix.exe lies.
rem
rem No other disk is touched. Ahead of each step on a disk the number is asked for anew by the path of the disk's file:
rem it must be one that no disk had at the start, the disk must have the size that it was made with, and its volume the
rem label that it was given; while the disk is offline there must be no volume. Otherwise nothing more is tried. The
rem system disk is named in one command only: a restore without --confirm, of an image that doesn't exist.
rem
rem diskpart wants 15 seconds between two scripts, and no empty line in one.
setlocal EnableExtensions DisableDelayedExpansion
set "tools=%SystemRoot%\System32"
set "powershell=%tools%\WindowsPowerShell\v1.0\powershell.exe"
set "here=%~dp0"
set "work=%here%check-windows-work"
set "report=%here%check-windows-report.txt"
set "diskMiB=128"
set "diskBytes=134217728"
set /a count_ok=0, count_noted=0, count_FAILED=0

if not exist "%here%kestrix.exe" goto no_program
"%tools%\fltmc.exe" >nul 2>&1
if not "%errorlevel%"=="0" goto no_administrator
if not "%here:'=%"=="%here%" goto no_such_path
if exist "%work%" goto left_behind
mkdir "%work%"
if errorlevel 1 goto no_folder
cd /d "%work%"
if errorlevel 1 goto no_folder

>"%report%" echo check-windows of %date% %time%
ver >>"%report%"
"%tools%\certutil.exe" -hashfile "%here%kestrix.exe" SHA256 >>"%report%" 2>&1
echo This takes about ten minutes. What it does is told in check-windows-report.txt.
>password.txt echo a password of check-windows

set "step=the numbers of the disks that are there"
"%powershell%" -NoProfile -NonInteractive -Command "Get-Disk | ForEach-Object { 'number={0};' -f $_.Number }" >before.txt 2>&1
type before.txt >>"%report%"
set "verdict=ok"
"%tools%\find.exe" "number=" before.txt >nul
if errorlevel 1 set "verdict=FAILED"
call :result
if "%verdict%"=="FAILED" goto finish

rem Chunks are 4 MiB: the volume of a ends where a chunk of the disk ends, that of b 1 MiB behind.
call :make a 111 116391936
if errorlevel 1 goto finish
call :make b 112 117440512
if errorlevel 1 goto finish
call :make c 111 116391936
if errorlevel 1 goto finish
set "targetLabel=KESTRIX_c"

set "seal="
set "unlock="
call :round a
if errorlevel 1 goto finish
set "seal=--encrypt --password-file password.txt"
set "unlock=--password-file password.txt"
call :round b
if errorlevel 1 goto finish
call :restore_onto_mounted
if errorlevel 1 goto finish
call :restore_onto_system_disk

:finish
call :clean
>>"%report%" echo.
>>"%report%" echo %count_ok% ok, %count_noted% noted, %count_FAILED% failed
echo %count_ok% ok, %count_noted% noted, %count_FAILED% failed. Please send check-windows-report.txt.
if not "%count_FAILED%"=="0" exit /b 1
exit /b 0

:no_program
echo kestrix.exe must lie beside check-windows.cmd.
exit /b 1
:no_administrator
echo Start this as administrator.
exit /b 1
:no_such_path
echo The path of this folder must hold no apostrophe.
exit /b 1
:left_behind
echo %work% is left from an earlier run.
echo Detach the disks a.vhd, b.vhd and c.vhd that lie in it, in Disk Management, and delete it.
exit /b 1
:no_folder
echo %work% can't be made.
exit /b 1

rem ---- What is tried ----

rem :round NAME - everything between the disk NAME and the target c. Ends with 1 if a disk could not be proven.
:round
call :prove %1 online KESTRIX_%1
if errorlevel 1 exit /b 1
call :put %1 first.bin
call :capture_with_snapshot %1
if errorlevel 1 exit /b 1
call :switch %1 offline KESTRIX_%1
if errorlevel 1 exit /b 1
call :switch c offline %targetLabel%
if errorlevel 1 exit /b 1

call :capture %1 %1-1.img %seal%
if errorlevel 1 exit /b 1
call :verify %1-1.img
call :restore %1-1.img
if errorlevel 1 exit /b 1
call :compare_disks %1
if errorlevel 1 exit /b 1

call :switch %1 online KESTRIX_%1
if errorlevel 1 exit /b 1
call :put %1 second.bin
call :switch %1 offline KESTRIX_%1
if errorlevel 1 exit /b 1
call :prove %1 offline
if errorlevel 1 exit /b 1
call :expect 0 "Capture complete (thin): %1-2.img" "%1: what changed is captured, %1-2.img"
call :kestrix capture --disk %number% --out %1-2.img --base %1-1.img --thin %seal%
call :verify %1-2.img
call :expect 0 "Consolidated: %1-3.img" "%1-2.img and its base are folded into %1-3.img"
call :kestrix consolidate --in %1-2.img --out %1-3.img %unlock%
call :restore %1-3.img
if errorlevel 1 exit /b 1
call :compare_disks %1
if errorlevel 1 exit /b 1

rem The copy has the source's signature, so it must not come online beside it, and coming online changes it.
call :detach "%1: both disks are detached" %1 c
call :compare_files %1
call :attach c
call :prove c online KESTRIX_%1
if errorlevel 1 exit /b 1
set "targetLabel=KESTRIX_%1"
del *.img
exit /b 0

rem Where the volume ends with a chunk, its last sectors may be out of the snapshot's reach: that is noted.
:capture_with_snapshot
call :prove %1 online KESTRIX_%1
if errorlevel 1 exit /b 1
call :expect 0 "1 volume(s) snapshotted" "%1: captured through a snapshot"
if "%1"=="a" set "orLine=ReadFile from source disk failed mid-capture"
call :kestrix capture --disk %number% --out %1-vss.img --vss
if "%verdict%"=="ok" call :verify %1-vss.img
exit /b 0

rem :capture NAME IMAGE [OPTION...] - of a disk that is offline, so that it stays as it is.
:capture
call :prove %1 offline
if errorlevel 1 exit /b 1
call :expect 0 "Capture complete: %2" "%1: captured, %2"
call :kestrix capture --disk %number% --out %2 %3 %4 %5
exit /b 0

:verify
call :expect 0 "Verify OK" "%1 verifies"
call :kestrix verify --in %1 %unlock%
exit /b 0

rem :restore IMAGE - over the target.
:restore
call :prove c offline
if errorlevel 1 exit /b 1
call :expect 0 "Restore complete" "%1 is restored over the target"
call :kestrix restore --in %1 --disk %number% --confirm YES %unlock%
exit /b 0

rem :compare_disks NAME - by plain images of both.
:compare_disks
call :capture %1 %1-is.img
if errorlevel 1 exit /b 1
call :capture c c-is.img
if errorlevel 1 exit /b 1
call :same %1-is.img c-is.img "%1: images of the disk and of the target are the same"
del %1-is.img c-is.img
exit /b 0

rem :compare_files NAME - the disks as they lie in their files, without kestrix: all that is ahead of the VHD's footer.
:compare_files
for %%f in (%1 c) do copy /b /y %%f.vhd %%f.raw >nul
for %%f in (%1 c) do "%tools%\fsutil.exe" file seteof %%f.raw %diskBytes% >nul
call :same %1.raw c.raw "%1: the disk and the target hold the same bytes"
del %1.raw c.raw
exit /b 0

rem Refused at once or at the first sector of the mounted volume: either way with an error number, and not with success.
:restore_onto_mounted
call :prove c online %targetLabel%
if errorlevel 1 exit /b 1
call :expect 0 "Capture complete" "c: captured while its volume is mounted"
call :kestrix capture --disk %number% --out mounted.img
call :prove c online %targetLabel%
if errorlevel 1 exit /b 1
call :expect 1 "GetLastError=" "a restore over a mounted volume fails"
call :kestrix restore --in mounted.img --disk %number% --confirm YES
exit /b 0

rem The refusal comes ahead of the look at --confirm and at the image; both would stop the restore as well.
:restore_onto_system_disk
call :expect 0 "currently booted system disk" "the list of disks names the system disk"
call :kestrix list-disks
set "systemDisk="
"%tools%\find.exe" "currently booted system disk" <output.txt >system.txt
for /f "tokens=1" %%d in (system.txt) do set "systemDisk=%%d"
if not defined systemDisk exit /b 0
call :expect 1 "is the disk this copy of Windows is currently running from" "a restore over the system disk is refused"
call :kestrix restore --in no-such-image.img --disk %systemDisk:PhysicalDrive=%
exit /b 0

rem ---- Steps and what came of them ----

rem :expect STATUS LINE STEP - what the next step is called, and what it has to end with and to print.
:expect
set "expected=%~1"
set "line=%~2"
set "step=%~3"
set "orLine="
exit /b 0

rem :kestrix ARGUMENT... - a run of the program as the step. One that fails with orLine is noted.
:kestrix
>>"%report%" echo.
>>"%report%" echo kestrix %*
"%here%kestrix.exe" %* >output.txt 2>&1
set "status=%errorlevel%"
type output.txt >>"%report%"
>>"%report%" echo [exit status %status%]
set "verdict=ok"
if not "%status%"=="%expected%" set "verdict=FAILED"
"%tools%\find.exe" "%line%" <output.txt >nul
if errorlevel 1 set "verdict=FAILED"
if not defined orLine goto result
if "%status%"=="0" goto result
"%tools%\find.exe" "%orLine%" <output.txt >nul
if not errorlevel 1 set "verdict=noted"
goto result

rem :same FILE FILE STEP - equal byte for byte, and by their digests.
:same
set "step=%~3"
set "verdict=ok"
"%tools%\fc.exe" /b %1 %2 >nul 2>&1
if not "%errorlevel%"=="0" set "verdict=FAILED"
call :digest %1
set "first=%digest%"
call :digest %2
if not defined digest set "verdict=FAILED"
if not "%first%"=="%digest%" set "verdict=FAILED"
goto result

:digest
set "digest="
"%tools%\certutil.exe" -hashfile %1 SHA256 >output.txt 2>&1
set "status=%errorlevel%"
>>"%report%" echo.
type output.txt >>"%report%"
if not "%status%"=="0" exit /b 0
for /f "skip=1 delims=" %%h in (output.txt) do if not defined digest set "digest=%%h"
exit /b 0

rem :put NAME FILE - onto the volume of the disk NAME; what was put there before must be seen, so that the volume is.
:put
set "step=%1: %2 is written to the volume"
set "verdict=ok"
if "%2"=="first.bin" copy /b /y "%here%kestrix.exe" mount-%1\first.bin >nul
if "%2"=="second.bin" if not exist mount-%1\first.bin set "verdict=FAILED"
if "%2"=="second.bin" copy /b /y "%tools%\find.exe" mount-%1\second.bin >nul
if not exist mount-%1\%2 set "verdict=FAILED"
goto result

rem Counts and tells the step's verdict.
:result
set /a count_%verdict%+=1
>>"%report%" echo %verdict%: %step%
echo   %verdict%  %step%
exit /b 0

rem ---- Disks ----

rem :make NAME MIB BYTES - a disk with one volume of that size, from 1 MiB on, and the label KESTRIX_NAME. Until the
rem disk is attached nothing has diskpart's focus, and a line that fails ends the script.
:make
mkdir mount-%1
>script.txt echo create vdisk file="%work%\%1.vhd" maximum=%diskMiB% type=fixed
>>script.txt echo select vdisk file="%work%\%1.vhd"
>>script.txt echo attach vdisk
>>script.txt echo create partition primary size=%2 offset=1024
>>script.txt echo format fs=ntfs label="KESTRIX_%1" quick
>>script.txt echo assign mount="%work%\mount-%1"
call :wait
call :diskpart "%1: a disk in a file, with a volume of %2 MiB"
call :prove %1 online KESTRIX_%1
if errorlevel 1 exit /b 1
set "step=%1: the volume lies where it should"
set "verdict=ok"
if not "%proof_partition%"=="1048576+%3" set "verdict=FAILED"
call :result
exit /b 0

rem :switch NAME online|offline LABEL - the label is that of the disk while it is online. Ends with 1 if the disk could
rem not be proven before or after.
:switch
call :wait
if "%2"=="offline" call :prove %1 online %3
if "%2"=="online" call :prove %1 offline
if errorlevel 1 exit /b 1
>script.txt echo select disk %number%
>>script.txt echo %2 disk
call :diskpart "%1: %2"
if "%2"=="offline" call :prove %1 offline
if "%2"=="online" call :prove %1 online %3
exit /b %errorlevel%

rem :attach NAME - and bring it online, whatever it was when it was detached.
:attach
>script.txt echo select vdisk file="%work%\%1.vhd"
>>script.txt echo attach vdisk
>>script.txt echo online disk noerr
>>script.txt echo attributes disk clear readonly noerr
call :wait
call :diskpart "%1: attached again"
exit /b 0

rem :detach STEP NAME... - of those whose files are there.
:detach
if exist script.txt del script.txt
for %%n in (%2 %3 %4) do if exist %%n.vhd call :add_detach %%n
if not exist script.txt exit /b 0
call :wait
call :diskpart %1
exit /b 0

:add_detach
>>script.txt echo select vdisk file="%work%\%1.vhd"
>>script.txt echo detach vdisk noerr
exit /b 0

rem :diskpart STEP - runs script.txt.
:diskpart
set "step=%~1"
>>"%report%" echo.
type script.txt >>"%report%"
"%tools%\diskpart.exe" /s script.txt >output.txt 2>&1
set "status=%errorlevel%"
set "verdict=ok"
if not "%status%"=="0" set "verdict=FAILED"
type output.txt >>"%report%"
>>"%report%" echo [exit status %status%]
goto result

rem :prove NAME online|offline [LABEL] - number is then the disk's. What a disk shows may come a moment late, so it is
rem asked a few times. Ends with 1, a failed step, where the proof fails.
:prove
set "tries=0"
:prove_again
for %%v in (number imageSize diskSize system offline partition label) do set "proof_%%v="
"%powershell%" -NoProfile -NonInteractive -Command "$ErrorActionPreference = 'Stop'; Update-HostStorageCache; $i = Get-DiskImage -ImagePath '%work%\%1.vhd'; $d = Get-Disk -Number $i.Number; $p = @(Get-Partition -DiskNumber $d.Number -ErrorAction SilentlyContinue); $v = @(foreach ($q in $p) { Get-Volume -Partition $q -ErrorAction SilentlyContinue }); 'number={0}' -f $d.Number; 'imageSize={0}' -f $i.Size; 'diskSize={0}' -f $d.Size; 'system={0}' -f ($d.IsSystem -or $d.IsBoot); 'offline={0}' -f $d.IsOffline; 'partition={0}' -f (($p | ForEach-Object { '{0}+{1}' -f $_.Offset, $_.Size }) -join ','); 'label={0}' -f (($v | ForEach-Object { $_.FileSystemLabel }) -join ',')" >proof.txt 2>&1
for /f "usebackq tokens=1,* delims==" %%a in ("proof.txt") do set "proof_%%a=%%b"
if not defined proof_number goto unproven
"%tools%\find.exe" "number=%proof_number%;" before.txt >nul
if not errorlevel 1 goto unproven
if not "%proof_imageSize%"=="%diskBytes%" goto unproven
if not "%proof_diskSize%"=="%diskBytes%" goto unproven
if not "%proof_system%"=="False" goto unproven
if "%2"=="online" if not "%proof_offline%"=="False" goto unproven
if "%2"=="offline" if not "%proof_offline%"=="True" goto unproven
if not "%proof_label%"=="%~3" goto unproven
set "number=%proof_number%"
>>"%report%" echo.
>>"%report%" echo %1.vhd is PhysicalDrive%number%, %2, %proof_diskSize% bytes, label [%proof_label%]
exit /b 0

:unproven
set /a tries+=1
call :wait
if not "%tries%"=="3" goto prove_again
>>"%report%" echo.
type proof.txt >>"%report%"
set "step=%1: not proven to be the disk that was made, %2, label [%~3]; nothing more is tried"
set "verdict=FAILED"
call :result
exit /b 1

rem Fifteen seconds.
:wait
"%tools%\ping.exe" -n 16 127.0.0.1 >nul
exit /b 0

rem By their names: nothing but what was made here.
:clean
call :detach "all disks are detached" a b c
call :wait
for %%n in (a b c) do (
    if exist mount-%%n\first.bin del mount-%%n\first.bin
    if exist mount-%%n\second.bin del mount-%%n\second.bin
    if exist mount-%%n rd mount-%%n
    if exist %%n.vhd del %%n.vhd
    if exist %%n.raw del %%n.raw
)
if exist *.img del *.img
for %%f in (before output password proof script system) do if exist %%f.txt del %%f.txt
cd /d "%here%"
rd "%work%"
set "step=what was made is gone"
set "verdict=ok"
if exist "%work%" set "verdict=FAILED"
goto result
