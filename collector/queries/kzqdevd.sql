-- kzqdevd: database files. One row per file of every database (TOP (@max_rows) by
-- database id and file id).
-- Reads: sys.master_files, sys.databases, and in each database sys.database_files with
--        FILEPROPERTY(name, 'SpaceUsed').
-- Needs: VIEW ANY DEFINITION (sys.master_files); CONNECT ANY DATABASE for DVFREE and
-- PCTDVFREE (a file's used space is known only inside its database; single-user
-- databases are skipped).
-- Sizes in MB; they add up to kzqdbd's DBSIZE and LOGSIZE.
DECLARE @file_used TABLE (database_id int NOT NULL, file_id int NOT NULL, used_pages bigint NULL);
DECLARE @each_db nvarchar(max) = N'';
SELECT @each_db = @each_db + N'EXEC ' + QUOTENAME(name) + N'.sys.sp_executesql @q;'
FROM sys.databases
WHERE state = 0 AND user_access <> 1 AND HAS_DBACCESS(name) = 1
  AND database_id NOT IN (SELECT rs.database_id
                          FROM sys.dm_hadr_database_replica_states AS rs
                          JOIN sys.availability_replicas AS ar ON ar.replica_id = rs.replica_id
                          WHERE rs.is_local = 1 AND rs.is_primary_replica = 0
                            AND ar.secondary_role_allow_connections <> 2);
INSERT INTO @file_used (database_id, file_id, used_pages)
EXEC sys.sp_executesql @each_db, N'@q nvarchar(max)',
    @q = N'SELECT DB_ID(), file_id, CAST(FILEPROPERTY(name, ''SpaceUsed'') AS bigint) FROM sys.database_files;';

WITH version AS (
    SELECT CAST(SERVERPROPERTY('ProductVersion') AS nvarchar(32)) AS full_version
)
SELECT TOP (@max_rows)
    PARSENAME(v.full_version, 4) + N'.' + PARSENAME(v.full_version, 3) AS SRVVERSN,
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    d.name AS DBNAME,
    mf.name AS DEVICE,
    CAST(mf.size AS bigint) / 128 AS DVSIZE,
    (CAST(mf.size AS bigint) - u.used_pages) / 128 AS DVFREE,
    100 - u.used_pages * 100 / NULLIF(CAST(mf.size AS bigint), 0) AS PCTDVFREE,
    CASE mf.type WHEN 0 THEN N'data' WHEN 1 THEN N'log' WHEN 2 THEN N'filestream'
                 WHEN 4 THEN N'fulltext' ELSE LOWER(mf.type_desc) END AS DVTYPE,
    mf.physical_name AS PHYNAME,
    d.name AS UDBNAME,
    mf.name AS UDEVICE,
    mf.physical_name AS UPHYNAME,
    v.full_version AS SQLVER
FROM sys.master_files AS mf
JOIN sys.databases AS d ON d.database_id = mf.database_id
LEFT JOIN @file_used AS u ON u.database_id = mf.database_id AND u.file_id = mf.file_id
CROSS JOIN version AS v
ORDER BY mf.database_id, mf.file_id;
