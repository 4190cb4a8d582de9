#!/bin/sh
# Lays out a small file-copy backup for the main job: drive folders E (the Windows drive, which
# carried the configuration) and F (data), and the data folder "#" with the recovery
# configuration and the link-point files. E: and F: are the restore targets of the build's Wine
# prefix, so the sample restores onto them.
# Usage: make-sample-backup.sh BACKUP_DIR
set -eu
root=$1
rm -rf "$root"
mkdir -p "$root/E/ZOVACFG" "$root/E/Windows/System32" "$root/E/Users/Ana/Documents" \
    "$root/E/\$Recycle.Bin/S-1-5-21" "$root/E/System Volume Information" "$root/F/Data/Photos" "$root/#"
printf '[fonts]\r\n[extensions]\r\n' > "$root/E/Windows/win.ini"
head -c 1500000 /dev/urandom > "$root/E/Windows/System32/kernel.bin"
printf 'Meeting notes\r\n' > "$root/E/Users/Ana/Documents/Notes – März.txt"
: > "$root/E/Users/Ana/Documents/empty.txt"
printf 'deleted\r\n' > "$root/E/\$Recycle.Bin/S-1-5-21/old.txt"
printf 'paging\r\n' > "$root/E/pagefile.sys"
head -c 5000000 /dev/urandom > "$root/F/Data/Photos/holiday.raw"
printf 'F drive\r\n' > "$root/F/Data/readme.txt"
printf '[WinDir]\r\nDriveLetter=E\r\nPhysicalDrive=0\r\nDirectory=E:\\Windows\r\nBootDriveLetter=E\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n' \
    > "$root/#/disrec.ini"
printf '[E:\\Documents and Settings]\r\nTarget=E:\\Users\r\nBackupTarget=R:\\Sample\\E\\Users\r\n' > "$root/#/JPoint.dat"
: > "$root/#/MPoint.dat"
: > "$root/#/SPoint.dat"
: > "$root/#/HPoint.dat"
