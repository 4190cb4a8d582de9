#!/bin/sh
# Lays out a small file-copy backup for the main job, as the backup program leaves one: drive
# folders E (the Windows drive, which carried the configuration) and F (data, with a volume
# mounted at F:\Mount\Data), and the data folder "#" with the recovery configuration and the
# link-point files (a junction, a symbolic link, a mount point and a hard-link group whose two
# names the backup holds as two copies). E: and F: are the restore targets of the build's Wine
# prefix. Also writes the recovery answer file that names the backup.
# Usage: make-sample-backup.sh BACKUP_DIR ANSWER_FILE
set -eu
root=$1
answers=$2
rm -rf "$root"
mkdir -p "$root/E/ZOVACFG" "$root/E/Windows/System32" "$root/E/Users/Ana/Documents" \
    "$root/E/\$Recycle.Bin/S-1-5-21" "$root/E/System Volume Information" "$root/F/Data/Photos" \
    "$root/F/Mount/Data/Archive" "$root/#"
printf '[fonts]\r\n[extensions]\r\n' > "$root/E/Windows/win.ini"
head -c 1500000 /dev/urandom > "$root/E/Windows/System32/kernel.bin"
head -c 70000 /dev/urandom > "$root/E/Windows/notepad.exe"
cp "$root/E/Windows/notepad.exe" "$root/E/Windows/System32/notepad.exe"
printf 'Meeting notes\r\n' > "$root/E/Users/Ana/Documents/Notes – März.txt"
: > "$root/E/Users/Ana/Documents/empty.txt"
printf 'deleted\r\n' > "$root/E/\$Recycle.Bin/S-1-5-21/old.txt"
printf 'paging\r\n' > "$root/E/pagefile.sys"
head -c 5000000 /dev/urandom > "$root/F/Data/Photos/holiday.raw"
printf 'F drive\r\n' > "$root/F/Data/readme.txt"
printf 'archived\r\n' > "$root/F/Mount/Data/Archive/2015.txt"
printf '[WinDir]\r\nDriveLetter=E\r\nPhysicalDrive=0\r\nDirectory=E:\\Windows\r\nBootDriveLetter=E\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n' \
    > "$root/#/disrec.ini"
printf '[E:\\Documents and Settings]\r\nTarget=E:\\Users\r\nBackupTarget=R:\\Sample\\E\\Users\r\n' > "$root/#/JPoint.dat"
printf '[F:\\Mount\\Data]\r\nTarget=\\\\?\\Volume{5a3c0000-0000-0000-0000-100000000000}\\\r\nBackupTarget=R:\\Sample\\F\\Mount\\Data\r\n' \
    > "$root/#/MPoint.dat"
printf '[F:\\Data\\latest]\r\nTarget=F:\\Data\\Photos\r\nBackupTarget=R:\\Sample\\F\\Data\\Photos\r\n' > "$root/#/SPoint.dat"
printf '[1]\r\nB=R:\\Sample\\E\\Windows\\notepad.exe\r\nH1=E:\\Windows\\notepad.exe\r\nH2=E:\\Windows\\System32\\notepad.exe\r\n' \
    > "$root/#/HPoint.dat"
# The backup's times, not today's: a restore must give them back.
find "$root/E" "$root/F" -type f -exec touch -d '2015-11-05 21:04:08' {} +
find "$root/E" "$root/F" -type d -exec touch -d '2015-11-04 08:30:00' {} +
printf '[ZovaBackupLocation]\r\nLocation=R:\\Sample\r\nPointInTime=\r\n' > "$answers"
