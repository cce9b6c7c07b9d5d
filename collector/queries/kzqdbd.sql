-- kzqdbd: databases. One row per database (TOP (@max_rows) by database id).
-- Reads: sys.databases, sys.master_files, sys.dm_os_volume_stats,
--        sys.dm_os_performance_counters (Databases object, one instance per database),
--        sys.dm_tran_database_transactions, sys.dm_tran_session_transactions,
--        sys.dm_tran_active_transactions, msdb.dbo.backupset, and in each database
--        sys.database_files with FILEPROPERTY(name, 'SpaceUsed') and sys.tables.
-- Needs: VIEW SERVER STATE, VIEW ANY DEFINITION, SELECT on msdb.dbo.backupset;
-- CONNECT ANY DATABASE for the used data space and TABLECNT: no server-wide view tells
-- how much of a data file is used, so that part runs once in each online database the
-- login may enter (single-user databases are skipped: entering one would take its only
-- connection). Without it DBFREE, PCTDBFREE, PCTDBUSE, DTFFREE, ADBFREE, ADBFREEPCT and
-- TABLECNT have no value; everything else does.
-- Sizes in MB. Log space comes from the per-database counters, server-wide.
-- DUMPTRDATE: date of the newest log backup (mm/dd/yy), kept in msdb; the field holds a
-- date only, so it is formatted here.
-- rate: TRANSSEC, WRTRANSEC, LOGBFLSHPS, REPTRATE
DECLARE @file_used TABLE (database_id int NOT NULL, file_id int NOT NULL,
                          used_pages bigint NULL, user_tables int NULL);
DECLARE @each_db nvarchar(max) = N'';
SELECT @each_db = @each_db + N'EXEC ' + QUOTENAME(name) + N'.sys.sp_executesql @q;'
FROM sys.databases
WHERE state = 0 AND user_access <> 1 AND HAS_DBACCESS(name) = 1
  AND database_id NOT IN (SELECT rs.database_id
                          FROM sys.dm_hadr_database_replica_states AS rs
                          JOIN sys.availability_replicas AS ar ON ar.replica_id = rs.replica_id
                          WHERE rs.is_local = 1 AND rs.is_primary_replica = 0
                            AND ar.secondary_role_allow_connections <> 2);
INSERT INTO @file_used (database_id, file_id, used_pages, user_tables)
EXEC sys.sp_executesql @each_db, N'@q nvarchar(max)',
    @q = N'SELECT DB_ID(), file_id, CAST(FILEPROPERTY(name, ''SpaceUsed'') AS bigint),
                  (SELECT COUNT(*) FROM sys.tables WHERE is_ms_shipped = 0)
           FROM sys.database_files;';

WITH files AS (
    SELECT mf.database_id,
           COUNT(*) AS file_count,
           SUM(CASE WHEN mf.type = 0 THEN CAST(mf.size AS bigint) END) AS data_pages,
           SUM(CASE WHEN mf.type = 1 THEN CAST(mf.size AS bigint) END) AS log_pages,
           SUM(CASE WHEN mf.type = 0 THEN u.used_pages END) AS data_used_pages,
           MAX(u.user_tables) AS user_tables,
           CASE WHEN MAX(CASE WHEN mf.type = 0 AND mf.growth > 0 AND mf.max_size = -1 THEN 1 ELSE 0 END) = 1 THEN NULL
                ELSE SUM(CASE WHEN mf.type = 0 THEN CAST(CASE WHEN mf.growth = 0 THEN mf.size ELSE mf.max_size END AS bigint) END)
           END AS data_max_pages,
           CASE WHEN MAX(CASE WHEN mf.type = 1 AND mf.growth > 0 AND mf.max_size = -1 THEN 1 ELSE 0 END) = 1 THEN NULL
                ELSE SUM(CASE WHEN mf.type = 1 THEN CAST(CASE WHEN mf.growth = 0 THEN mf.size ELSE mf.max_size END AS bigint) END)
           END AS log_max_pages,
           SUM(CASE WHEN mf.type = 0 AND mf.growth > 0 AND mf.max_size <> -1
                    THEN CAST(mf.max_size - mf.size AS bigint) ELSE 0 END) AS data_room_pages,
           MAX(CASE WHEN mf.type = 0 AND mf.is_percent_growth = 1 THEN mf.growth END) AS data_growth_pct,
           MAX(CASE WHEN mf.type = 1 AND mf.is_percent_growth = 0 THEN mf.growth END) AS log_growth_pages
    FROM sys.master_files AS mf
    LEFT JOIN @file_used AS u ON u.database_id = mf.database_id AND u.file_id = mf.file_id
    GROUP BY mf.database_id
),
unlimited_volumes AS (
    SELECT DISTINCT mf.database_id, vs.volume_id, vs.available_bytes
    FROM sys.master_files AS mf
    JOIN sys.databases AS d ON d.database_id = mf.database_id AND d.state = 0
    CROSS APPLY sys.dm_os_volume_stats(mf.database_id, mf.file_id) AS vs
    WHERE mf.type = 0 AND mf.growth > 0 AND mf.max_size = -1
),
volume_room AS (
    SELECT database_id, SUM(available_bytes) / 1048576 AS room_mb
    FROM unlimited_volumes
    GROUP BY database_id
),
db_counters AS (
    SELECT RTRIM(instance_name) AS database_name,
           MAX(CASE WHEN RTRIM(counter_name) = N'Log File(s) Size (KB)' THEN cntr_value END) AS log_kb,
           MAX(CASE WHEN RTRIM(counter_name) = N'Log File(s) Used Size (KB)' THEN cntr_value END) AS log_used_kb,
           MAX(CASE WHEN RTRIM(counter_name) = N'Percent Log Used' THEN cntr_value END) AS log_used_pct,
           MAX(CASE WHEN RTRIM(counter_name) = N'Active Transactions' THEN cntr_value END) AS active_trans,
           MAX(CASE WHEN RTRIM(counter_name) = N'Transactions/sec' THEN cntr_value END) AS trans,
           MAX(CASE WHEN RTRIM(counter_name) = N'Write Transactions/sec' THEN cntr_value END) AS write_trans,
           MAX(CASE WHEN RTRIM(counter_name) = N'Log Flushes/sec' THEN cntr_value END) AS log_flushes,
           MAX(CASE WHEN RTRIM(counter_name) = N'Repl. Trans. Rate' THEN cntr_value END) AS repl_trans,
           MAX(CASE WHEN RTRIM(counter_name) = N'Repl. Pending Xacts' THEN cntr_value END) AS repl_pending
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Databases'
    GROUP BY RTRIM(instance_name)
),
oldest_transaction AS (
    SELECT dt.database_id, st.session_id, act.name,
           dt.database_transaction_begin_time AS began,
           ROW_NUMBER() OVER (PARTITION BY dt.database_id
                              ORDER BY dt.database_transaction_begin_time) AS age_rank
    FROM sys.dm_tran_database_transactions AS dt
    JOIN sys.dm_tran_session_transactions AS st ON st.transaction_id = dt.transaction_id
    JOIN sys.dm_tran_active_transactions AS act ON act.transaction_id = dt.transaction_id
    WHERE dt.database_transaction_begin_time IS NOT NULL
)
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    d.name AS DBNAME,
    CAST(d.database_id AS nvarchar(12)) AS DBID,
    SUSER_SNAME(d.owner_sid) AS OWNER,
    CASE WHEN d.state IN (3, 4, 5) THEN N'yes' ELSE N'no' END AS ERRSTATUS,
    CASE WHEN d.user_access = 2 THEN N'yes' ELSE N'no' END AS DBOONLY,
    CASE WHEN d.user_access = 1 THEN N'yes' ELSE N'no' END AS SINGUSER,
    CASE WHEN d.is_read_only = 1 THEN N'yes' ELSE N'no' END AS READONLY,
    CASE WHEN d.recovery_model = 2 THEN N'yes' ELSE N'no' END AS SELINTOB,
    CONVERT(char(8), last_log.finished, 1) AS DUMPTRDATE,
    f.data_pages / 128 AS DBSIZE,
    f.log_pages / 128 AS LOGSIZE,
    (f.data_pages - f.data_used_pages) / 128 AS DBFREE,
    (c.log_kb - c.log_used_kb) / 1024 AS LOGFREE,
    100 - f.data_used_pages * 100 / NULLIF(f.data_pages, 0) AS PCTDBFREE,
    100 - c.log_used_pct AS PCTLOGFREE,
    f.file_count AS NUMDEVICES,
    f.data_used_pages * 100 / NULLIF(f.data_pages, 0) AS PCTDBUSE,
    d.state AS DBSTAT,
    c.log_used_pct AS PCTLOGUSED,
    ot.session_id AS OLDOPTRAN,
    CASE WHEN d.state = 4 THEN 1 ELSE 0 END AS SUSPECTDB,
    c.repl_trans AS REPTRATE,
    c.repl_pending AS REPTRANS,
    SUSER_SNAME(d.owner_sid) AS UOWNER,
    d.name AS UDBNAME,
    f.log_max_pages / 128 AS LOGMAXGRSZ,
    f.data_max_pages / 128 AS DBMAXGRSZ,
    f.data_growth_pct AS DBGRWTHPCT,
    c.active_trans AS ACTIVTRANS,
    c.trans AS TRANSSEC,
    log_names.list AS LOGFILENM,
    data_names.list AS DATAFILENM,
    c.write_trans AS WRTRANSEC,
    ot.session_id AS LRTPID,
    DATEDIFF(second, ot.began, GETDATE()) AS LRTTPS,
    ot.name AS LRTNAME,
    d.state_desc AS DBSTATE,
    f.user_tables AS TABLECNT,
    f.log_growth_pages / 128 AS LOGGRTH,
    c.log_flushes AS LOGBFLSHPS,
    (f.data_pages - f.data_used_pages) / 128 AS DTFFREE,
    (f.data_pages - f.data_used_pages + f.data_room_pages) / 128 + ISNULL(vr.room_mb, 0) AS ADBFREE,
    ((f.data_pages - f.data_used_pages + f.data_room_pages) / 128 + ISNULL(vr.room_mb, 0)) * 100
        / NULLIF(f.data_used_pages / 128 + (f.data_pages - f.data_used_pages + f.data_room_pages) / 128
                 + ISNULL(vr.room_mb, 0), 0) AS ADBFREEPCT,
    d.page_verify_option AS PAGEVERIFY,
    d.recovery_model AS RECOVMODEL
FROM sys.databases AS d
LEFT JOIN files AS f ON f.database_id = d.database_id
LEFT JOIN volume_room AS vr ON vr.database_id = d.database_id
LEFT JOIN db_counters AS c ON c.database_name = d.name
LEFT JOIN oldest_transaction AS ot ON ot.database_id = d.database_id AND ot.age_rank = 1
OUTER APPLY (
    SELECT MAX(b.backup_finish_date) AS finished
    FROM msdb.dbo.backupset AS b
    WHERE b.database_name = d.name AND b.type = 'L' AND b.backup_finish_date >= d.create_date
) AS last_log
OUTER APPLY (
    SELECT STUFF((SELECT N';' + mf.physical_name
                  FROM sys.master_files AS mf
                  WHERE mf.database_id = d.database_id AND mf.type = 0
                  ORDER BY mf.file_id
                  FOR XML PATH(''), TYPE).value('.', 'nvarchar(max)'), 1, 1, N'') AS list
) AS data_names
OUTER APPLY (
    SELECT STUFF((SELECT N';' + mf.physical_name
                  FROM sys.master_files AS mf
                  WHERE mf.database_id = d.database_id AND mf.type = 1
                  ORDER BY mf.file_id
                  FOR XML PATH(''), TYPE).value('.', 'nvarchar(max)'), 1, 1, N'') AS list
) AS log_names
ORDER BY d.database_id;
