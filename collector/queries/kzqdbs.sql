-- kzqdbs: database summary. One row: all databases of this instance (see kzqdbd).
-- Reads: sys.databases, sys.master_files, sys.dm_os_performance_counters ('Percent Log
--        Used' of the Databases object), and in each database sys.database_files with
--        FILEPROPERTY(name, 'SpaceUsed').
-- Needs: VIEW SERVER STATE, VIEW ANY DEFINITION; CONNECT ANY DATABASE for MINDBFREE (used
-- data space is known only inside each database; single-user databases are skipped).
-- MINDBFREE, MINLOGFREE: the lowest free percentage of the data files / the log.
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

WITH data_free AS (
    SELECT mf.database_id,
           100 - SUM(u.used_pages) * 100 / NULLIF(SUM(CAST(mf.size AS bigint)), 0) AS pct_free
    FROM sys.master_files AS mf
    JOIN @file_used AS u ON u.database_id = mf.database_id AND u.file_id = mf.file_id
    WHERE mf.type = 0
    GROUP BY mf.database_id
),
log_used AS (
    SELECT cntr_value AS pct_used
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Databases'
      AND RTRIM(counter_name) = N'Percent Log Used'
      AND RTRIM(instance_name) IN (SELECT name FROM sys.databases)
),
counts AS (
    SELECT COUNT(*) AS total,
           COUNT(CASE WHEN state IN (3, 4, 5) THEN 1 END) AS in_error,
           COUNT(CASE WHEN is_read_only = 1 THEN 1 END) AS read_only,
           COUNT(CASE WHEN user_access = 2 THEN 1 END) AS restricted,
           COUNT(CASE WHEN user_access = 1 THEN 1 END) AS single_user
    FROM sys.databases
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    c.total AS NUMDBS,
    (SELECT MIN(pct_free) FROM data_free) AS MINDBFREE,
    (SELECT 100 - MAX(pct_used) FROM log_used) AS MINLOGFREE,
    c.in_error AS NUMERRST,
    c.read_only AS NUMRO,
    c.restricted AS NUMDBO,
    c.single_user AS NUMSING
FROM counts AS c;
