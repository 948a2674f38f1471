# Completion of kestrix, kestrix-image and kestrix-keep for PowerShell 5.1 and later. In the profile:
#     . C:\kestrix\completion\kestrix.ps1
# What must not be typed by habit is never filled in: the YES of a restore, the disk that a restore overwrites, its
# serial number, and behind --out the name of a file that is there already.

$KestrixOptions = @{
    'kestrix list-disks'      = ''
    'kestrix capture'         = '--disk --out --base --thin --vss --encrypt --password-file'
    'kestrix verify'          = '--in --password-file'
    'kestrix restore'         = '--in --disk --confirm --password-file'
    'kestrix consolidate'     = '--in --out --password-file --encrypt'
    'kestrix-image info'      = '--json --quiet'
    'kestrix-image tree'      = '--json --quiet -j'
    'kestrix-image check'     = '--own --json --quiet -j --cached --password-file'
    'kestrix-image compare'   = '--disk --file --json --quiet -j --cached'
    'kestrix-image diff'      = '--json --quiet'
    'kestrix-image extract'   = '--out --keep-going --map --twins --twin-disk --json --quiet -j --cached --password-file'
    'kestrix-image repair'    = '--out --twins --twin-disk --json --quiet -j --cached --password-file'
    'kestrix-keep disks'      = '--json --quiet'
    'kestrix-keep backup'     = '--dry-run -j --json --quiet --config'
    'kestrix-keep status'     = '--place --compare --prometheus --html --json --quiet --config'
    'kestrix-keep restore'    = '--image --from --fetch-to --disk --yes-overwrite --password-file --trust-last-audit --other-sectors --move-backup-gpt -j --json --quiet --config'
    'kestrix-keep schedule'   = '--daily --wake --any-hour --print --replace --json --quiet --config'
    'kestrix-keep unschedule' = '--json --quiet'
}

Register-ArgumentCompleter -Native -CommandName kestrix, kestrix.exe, kestrix-image, kestrix-image.exe, kestrix-keep,
    kestrix-keep.exe -ScriptBlock {
    param($wordToComplete, $commandAst, $cursorPosition)

    # What is on the line before the word that is completed.
    $words = @($commandAst.CommandElements | Where-Object { $_.Extent.EndOffset -lt $cursorPosition } |
            ForEach-Object { $_.ToString() })
    $program = [IO.Path]::GetFileNameWithoutExtension($words[0].Trim('"', "'"))
    $before = $words[-1]
    $subcommand = $words | Where-Object { $KestrixOptions.ContainsKey("$program $_") } | Select-Object -First 1

    function Choose($choices) {
        $choices | Where-Object { $_ -like "$wordToComplete*" } | Sort-Object | ForEach-Object {
            [Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', $_)
        }
    }

    if (-not $subcommand) {
        return Choose ($KestrixOptions.Keys | Where-Object { $_ -like "$program *" } | ForEach-Object { ($_ -split ' ')[1] })
    }
    # Something has to come back, or PowerShell goes on to the names of files.
    $nothing = [Management.Automation.CompletionResult]::new($wordToComplete + ' ', 'to be typed', 'ParameterValue',
        'to be typed')
    if ("$subcommand $before" -eq 'restore --disk' -or
        $before -in '--yes-overwrite', '--confirm', '-j', '--daily', '--out', '--map') {
        return $nothing
    }
    if ($before -in '--disk', '--twin-disk') {
        $folder = Split-Path -Parent $words[0].Trim('"', "'")
        $keep = if ($folder) { Join-Path $folder 'kestrix-keep.exe' } else { 'kestrix-keep' }
        $disks = (& $keep disks --json 2>$null | Out-String | ConvertFrom-Json).disks
        return $disks | Where-Object { "$($_.number)" -like "$wordToComplete*" } | ForEach-Object {
            $size = '{0:N1} GiB' -f ($_.sizeBytes / 1GB)
            $mark = if ($_.systemDisk) { ', SYSTEM DISK' } else { '' }
            [Management.Automation.CompletionResult]::new("$($_.number)", "$($_.number)  $($_.model), $size$mark",
                'ParameterValue', "$($_.model), $size$mark")
        }
    }
    # Names of files PowerShell completes by itself, where nothing comes back.
    if ($before -notlike '-*' -or $before -in '--json', '--quiet', '--thin', '--vss', '--encrypt', '--own', '--cached',
        '--keep-going', '--dry-run', '--compare', '--trust-last-audit', '--other-sectors', '--move-backup-gpt', '--wake',
        '--any-hour', '--print', '--replace') {
        if ($program -eq 'kestrix' -or $wordToComplete -like '-*') {
            return Choose ($KestrixOptions["$program $subcommand"] -split ' ' | Where-Object { $_ -and $_ -notin $words })
        }
    }
}
